// tavctl send and listen: messages.
#include "commands.h"
#include "module.h"
#include "payload.h"

namespace tavctl {
namespace {

struct Confirmation {
    bool ended = false;
    int code = 0;
};
int on_confirmed(int32_t code, void *user) {
    *static_cast<Confirmation *>(user) = {true, code};
    return 0;
}

Problem not_sent(const tav_addr_st &destination) {
    return Problem("the message to " + address_text(destination) + " was refused",
                   "32 MiB or more without a confirmation are refused, alone or together with what waits: "
                   "leave --no-confirm out");
}

// Sends one confirmed message; throws when it did not arrive.
double send_confirmed(const Module &module, const tav_addr_st &destination, const std::string &payload,
                      const SendOptions &options, Confirmation &state) {
    state = {};
    const double begin = now_seconds();
    tav_ipc_send2(module, &destination, options.command, payload.data(),
                  static_cast<uint32_t>(payload.size()), on_confirmed, &state, options.timeout_s);
    if (run_until([&] { return state.ended; }) == Wait::kInterrupted)
        throw Problem("interrupted: nobody knows whether it arrived");
    if (state.code != 0) throw failed_exchange(destination, state.code);
    return now_seconds() - begin;
}

// Lets messages leave of which nobody will tell that they arrived. The library speaks only when it tries one
// again or drops it: while it is silent for longer than an attempt and the pause before the next take, all
// have left.
void let_leave(const tav_addr_st &destination) {
    constexpr double kAttempt_s = 1.2, kAttemptAndPause_s = 2.5;
    uint64_t tried_again = retries_logged();
    const uint64_t before = tried_again;
    double since = now_seconds();
    const auto quiet = [&] {
        if (const uint64_t now = retries_logged(); now != tried_again) {
            tried_again = now;
            since = now_seconds();
        }
        return now_seconds() - since > (tried_again == before ? kAttempt_s : kAttemptAndPause_s);
    };
    std::vector<std::string> dropped;
    const auto ended = [&] {
        for (const std::string &line : take_log())
            if (line.find("drop it|") != std::string::npos) dropped.push_back(line);
        return !dropped.empty() || quiet();
    };
    if (run_until(ended) == Wait::kInterrupted) throw Problem("interrupted before the message had left");
    if (!dropped.empty()) throw Problem("dropped: " + dropped.front(), silence(destination).remedy());
}

// Refused for the amount that waits: it goes when some of that has left.
void send_plain(const Module &module, const tav_addr_st &destination, const std::string &payload,
                const SendOptions &options) {
    const double end = now_seconds() + options.timeout_s;
    while (tav_ipc_send(module, &destination, options.command, payload.data(),
                        static_cast<uint32_t>(payload.size())) != 0) {
        if (now_seconds() > end || interrupted()) throw not_sent(destination);
        pause(0.01);
    }
}

struct Listener {
    Console &out;
    const ListenOptions &options;
    Module *module = nullptr;
    uint64_t seen = 0;

    void show(const char *kind, const tav_addr_st &src, uint32_t cmd, std::string_view payload) {
        // Closed with the last one that is wanted: what nobody sees shall not be confirmed.
        if (++seen == options.count) module->close();
        if (options.raw) return write_raw(payload);
        Record record;
        record.add("type", kind)
            .add("time", clock_text())
            .add("from", address_text(src))
            .add("hostid", src.hostid);
        record.add("cmd", cmd);
        const std::string text = describe_payload(record, payload, {options.hex, false, options.max_bytes});
        out.say(record, clock_text() + "  " + (kind == std::string("request") ? "request " : "") + "from " +
                            address_text(src) + ", cmd " + std::to_string(cmd) + ", " +
                            grouped(payload.size()) + " bytes" + (text.empty() ? "" : "\n" + text));
    }
};

int on_message(tav_ipc_st *, const tav_addr_st *src, uint32_t cmd, const void *data, uint32_t size,
               void *user) {
    static_cast<Listener *>(user)->show("message", *src, cmd, {static_cast<const char *>(data), size});
    return 0;
}

} // namespace

int send(Console &out, const SendOptions &options) {
    const tav_addr_st destination = parse_address(options.destination, address_flags(options.payload));
    const std::string payload = make_payload(options.payload), who = address_text(destination);
    const std::string packed = options.payload.compress ? compression_text(payload) : "";
    catch_interrupts();
    Confirmation state; // before the endpoint: its end completes what is outstanding
    const Module module(Module::kReceiving);
    for (uint64_t i = 0; i < options.count && !interrupted(); ++i) {
        if (i > 0) pause(options.interval_s);
        Record record;
        record.add("type", "sent").add("to", who).add("cmd", options.command).add("size", payload.size());
        record.add("confirmed", options.confirm);
        const std::string text = who + ": " + grouped(payload.size()) + " bytes" + packed;
        if (options.confirm) {
            const double took = send_confirmed(module, destination, payload, options, state);
            out.say(record.add("us", took * 1e6), text + ", delivered in " + time_text(took));
        } else {
            watch_retries();
            send_plain(module, destination, payload, options);
            out.say(record, text + ", on its way");
        }
    }
    if (!options.confirm) let_leave(destination);
    return interrupted() ? kFailure : kSuccess;
}

int listen(Console &out, const ListenOptions &options) {
    catch_interrupts();
    Listener listener{out, options};
    Module module(Module::kReceiving, options.name);
    listener.module = &module;
    tav_ipc_msg_recv(module, on_message, &listener);
    if (!options.raw)
        out.say(Record().add("type", "ready").add("as", module.text()),
                "listening as " + module.text() + "; Ctrl-C ends it");
    run_until([&] { return options.count > 0 && listener.seen >= options.count; });
    if (!options.raw)
        out.say(Record().add("type", "end").add("messages", listener.seen),
                grouped(listener.seen) + (listener.seen == 1 ? " message" : " messages"));
    return kSuccess;
}

} // namespace tavctl
