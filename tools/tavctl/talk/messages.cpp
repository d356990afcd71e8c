// tavctl send, listen, request, reply and probe.
#include <cmath>
#include <numeric>

#include "commands.h"
#include "module/module.h"

namespace tavctl {
namespace {

// A message is refused while too many bytes wait; it is accepted when some of them have left.
void send_plain(const Module &module, const tav_addr_st &destination, uint32_t cmd,
                const std::string &payload, double patience_s) {
    const double end = now_seconds() + patience_s;
    while (tav_ipc_send(module, &destination, cmd, payload.data(), static_cast<uint32_t>(payload.size())) !=
           0) {
        if (now_seconds() > end || interrupted())
            throw Problem("the message to " + address_text(destination) + " was refused",
                          "32 MiB or more without a confirmation are refused, alone or together with what "
                          "waits: leave --no-confirm out");
        pause(0.01);
    }
}

struct Listener {
    Console &out;
    const Args &args;
    Module &module;
    uint64_t seen = 0;

    void show(const tav_addr_st &src, uint32_t cmd, std::string_view payload) {
        // The endpoint is closed with the last message, because the library confirms what it still receives.
        if (++seen == args.number("count")) module.close();
        if (args.has("raw")) return void(std::cout << payload << std::flush);
        Record record("type", "message", "time", Stamp(), "from", address_text(src), "hostid", src.hostid);
        const std::string lines = describe_payload(record.add("cmd", cmd), payload, args);
        out.say(record, "{time}  from {from}, cmd {cmd}, {size,} bytes", lines);
    }
    static int on_message(tav_ipc_st *, const tav_addr_st *src, uint32_t cmd, const void *data, uint32_t size,
                          void *user) {
        static_cast<Listener *>(user)->show(*src, cmd, {static_cast<const char *>(data), size});
        return 0;
    }
};

struct Server {
    Console &out;
    const Args &args;
    const std::string payload;
    uint64_t answered = 0;

    void answer(tav_ipc_st *ipc, const tav_addr_st &src, uint32_t reqid, uint32_t cmd,
                std::string_view request) {
        if (is_done()) return; // came together with the last one
        const std::string_view bytes = args.has("echo") ? request : std::string_view(payload);
        const auto code = args.has("cmd") ? static_cast<uint32_t>(args.number("cmd")) : cmd + 1;
        tav_addr_st destination = src;
        destination.flags |= address_flags(args);
        const bool sent = tav_ipc_response2(ipc, &destination, reqid, code, bytes.data(),
                                            static_cast<uint32_t>(bytes.size())) == 0;
        if (!sent) std::cerr << "tavctl: the answer to " << address_text(src) << " was refused\n";
        answered += sent;
        if (args.has("quiet") || !sent) return;
        Record record("type", "request", "time", Stamp(), "from", address_text(src), "reqid", reqid);
        record.add("cmd", cmd, "answered", bytes.size());
        const std::string lines = describe_payload(record, request, args);
        out.say(record,
                "{time}  request {reqid} from {from}, cmd {cmd}, {size,} bytes; answered with {answered,}",
                lines);
    }
    bool is_done() const { return args.count_reached(answered); }
    static int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd,
                          const void *data, uint32_t size, void *user) {
        static_cast<Server *>(user)->answer(ipc, *src, reqid, cmd, {static_cast<const char *>(data), size});
        return 0;
    }
};

// times: of the answers, in seconds.
void say_statistics(Console &out, const std::string &who, uint64_t sent, std::vector<double> times) {
    const uint64_t percent = sent > 0 ? 100 * (sent - times.size()) / sent : 0;
    Record record("type", "statistics", "to", who, "sent", sent, "answered", times.size());
    std::string text = "--- {to}: {sent,} sent, {answered,} answered, " + std::to_string(percent) + " % lost";
    if (!times.empty()) {
        std::ranges::sort(times);
        const auto count = static_cast<double>(times.size());
        const double median = (times[(times.size() - 1) / 2] + times[times.size() / 2]) / 2;
        const double mean = std::accumulate(times.begin(), times.end(), 0.0) / count;
        double squares = 0;
        for (const double t : times) squares += (t - mean) * (t - mean);
        record.add("min_us", Duration{times.front()}, "median_us", Duration{median}, "mean_us",
                   Duration{mean});
        record.add("max_us", Duration{times.back()}, "deviation_us", Duration{std::sqrt(squares / count)});
        text += "\n  min {min_us}, median {median_us}, mean {mean_us}, max {max_us}, std dev {deviation_us}";
    }
    out.say(record, text);
}

} // namespace

int send(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"), address_flags(args));
    const std::string payload = make_payload(args);
    const auto cmd = static_cast<uint32_t>(args.number("cmd"));
    const double timeout_s = args.seconds("timeout");
    const bool confirm = !args.has("no-confirm");
    catch_interrupts();
    const Module module;
    for (uint64_t i = 0; i < args.number("count") && !interrupted(); ++i) {
        if (i > 0) pause(args.seconds("interval"));
        Record record("type", "sent", "to", address_text(destination), "cmd", cmd, "size", payload.size());
        record.add("confirmed", confirm);
        const uint64_t before = accepted_bytes(module);
        if (confirm) {
            const Answer sent =
                exchange(module, TAV_IPC_EXCHANGE_CONFIRMED, destination, timeout_s, cmd, payload);
            if (!sent.ended) throw Problem("interrupted: it is not known whether the message arrived");
            if (sent.code != 0) throw failed_exchange(destination, sent.code);
            record.add("us", Duration{sent.took_s});
        } else {
            send_plain(module, destination, cmd, payload, timeout_s);
        }
        const uint64_t accepted = accepted_bytes(module) - before;
        const std::string packed =
            accepted < payload.size() ? ", compressed to " + grouped(accepted) + " bytes" : std::string();
        out.say(record, "{to}: {size,} bytes",
                packed + (confirm ? record.fill(", delivered in {us}") : ", on its way"));
    }
    if (!confirm) wait_until_left(module, destination);
    return interrupted() ? kFailure : kSuccess;
}

int listen(Console &out, const Args &args) {
    catch_interrupts();
    Module module(args.text("NAME"));
    Listener listener{out, args, module};
    tav_ipc_msg_recv(module, Listener::on_message, &listener);
    const bool raw = args.has("raw");
    if (!raw) out.say(Record("type", "ready", "as", module.text()), "listening as {as}; Ctrl-C ends it");
    run_until([&] { return args.count_reached(listener.seen); });
    if (!raw) out.say(Record("type", "end", "messages", listener.seen), "{messages,message}");
    return kSuccess;
}

int request(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"), address_flags(args));
    const std::string payload = make_payload(args);
    catch_interrupts();
    const Module module;
    const Answer answer = exchange(module, TAV_IPC_EXCHANGE_REQUEST, destination, args.seconds("timeout"),
                                   static_cast<uint32_t>(args.number("cmd")), payload);
    if (!answer.ended) throw Problem("interrupted before an answer came");
    if (answer.code != 0) throw failed_exchange(destination, answer.code);
    if (args.has("raw")) return std::cout << answer.payload << std::flush, kSuccess;
    Record record("type", "answer", "from", address_text(destination), "cmd", answer.cmd);
    record.add("us", Duration{answer.took_s});
    const std::string lines = describe_payload(record, answer.payload, args);
    out.say(record, "{from} answered after {us}: cmd {cmd}, {size,} bytes", lines);
    return kSuccess;
}

int reply(Console &out, const Args &args) {
    const bool echo = args.has("echo");
    if (echo && (args.has("DATA") || args.has("file")))
        throw misuse("--echo answers with the request's bytes: no payload may be given");
    Server server{out, args, echo ? std::string() : make_payload(args)};
    catch_interrupts();
    const Module module(args.text("NAME"));
    tav_ipc_on_request(module, Server::on_request, &server);
    out.say(Record("type", "ready", "as", module.text()), "answering as {as}; Ctrl-C ends it");
    run_until([&] { return server.is_done(); });
    tav_ipc_flush(module, kLastFlush_ms, nullptr);
    out.say(Record("type", "end", "answered", server.answered), "{answered,request} answered");
    return kSuccess;
}

int probe(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"));
    const std::string who = address_text(destination);
    uint64_t sent = 0;
    std::vector<double> times; // of the answers, in seconds
    catch_interrupts();
    const Module module;
    while (!args.count_reached(sent) && !interrupted()) {
        const Answer answer = exchange(module, TAV_IPC_EXCHANGE_PROBE, destination, kProbeTimeout_s);
        if (!answer.ended) break; // not counted: it had no time to be answered
        ++sent;
        Record record("type", "probe", "to", who, "number", sent, "code", answer.code);
        if (answer.code == 0) {
            times.push_back(answer.took_s);
            out.say(record.add("us", Duration{answer.took_s}), "{to}: number {number,}, {us}");
        } else {
            const Problem why = failed_exchange(destination, answer.code);
            const bool first = sent == times.size() + 1;
            out.say(record.add("error", why.what()), "{error}",
                    first ? "\n  what to do: " + why.remedy() : std::string());
        }
        if (!args.count_reached(sent)) pause(args.seconds("interval") - answer.took_s);
    }
    say_statistics(out, who, sent, times);
    if (sent == 0) return kFailure; // interrupted before one could be answered
    return times.empty() ? kNoAnswer : kSuccess;
}

} // namespace tavctl
