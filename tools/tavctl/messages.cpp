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
                   "more than 32 MiB (64 MiB of urgent ones) wait for this destination, or memory is short");
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

// Sends one message of which the receiving library tells nothing; throws when it was dropped here.
double send_plain(const Module &module, const tav_addr_st &destination, const std::string &payload,
                  const SendOptions &options) {
    const double begin = now_seconds();
    if (tav_ipc_send(module, &destination, options.command, payload.data(),
                     static_cast<uint32_t>(payload.size())) != 0)
        throw not_sent(destination);
    // The endpoint does not receive: when nothing is left to wait for, all has left or was dropped.
    if (run_until([] { return false; }) == Wait::kInterrupted)
        throw Problem("interrupted before the message had left");
    const auto lines = take_log();
    if (!lines.empty()) {
        const Problem why = silence(destination);
        throw Problem("dropped: " + lines.back(), why.remedy());
    }
    return now_seconds() - begin;
}

struct Listener {
    Console &out;
    const ListenOptions &options;
    uint64_t seen = 0;

    void show(const char *kind, const tav_addr_st &src, uint32_t cmd, std::string_view payload) {
        ++seen;
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
    catch_interrupts();
    Confirmation state; // before the endpoint: its end completes what is outstanding
    const Module module(options.confirm ? Module::kReceiving : Module::kSendingOnly);
    const std::string packed = options.payload.compress ? compression_text(payload) : "";
    for (uint64_t i = 0; i < options.count && !interrupted(); ++i) {
        if (i > 0 && options.interval_s > 0) {
            const double until = now_seconds() + options.interval_s;
            run_until([&] { return now_seconds() >= until; },
                      Milliseconds(static_cast<int64_t>(options.interval_s * 1000)));
        }
        const double took = options.confirm ? send_confirmed(module, destination, payload, options, state)
                                            : send_plain(module, destination, payload, options);
        Record record;
        record.add("type", "sent").add("to", who).add("cmd", options.command).add("size", payload.size());
        record.add("confirmed", options.confirm).add("us", took * 1e6);
        out.say(record, who + ": " + grouped(payload.size()) + " bytes" + packed +
                            (options.confirm ? ", delivered in " : ", left in ") + time_text(took));
    }
    return interrupted() ? kFailure : kSuccess;
}

int listen(Console &out, const ListenOptions &options) {
    catch_interrupts();
    Listener listener{out, options};
    const Module module(Module::kReceiving, options.name);
    tav_ipc_msg_recv(module, on_message, &listener);
    if (!options.raw) out.tell("listening as " + module.text() + "; Ctrl-C ends it");
    run_until([&] { return options.count > 0 && listener.seen >= options.count; });
    if (!options.raw)
        out.say(Record().add("type", "end").add("messages", listener.seen),
                grouped(listener.seen) + (listener.seen == 1 ? " message" : " messages"));
    return kSuccess;
}

} // namespace tavctl
