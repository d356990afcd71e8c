// tavctl send and listen: messages.
#include "cli/text.h"
#include "commands.h"
#include "module/library_state.h"
#include "module/module.h"
#include "module/payload.h"

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
        if (args.has("raw")) return write_raw(payload);
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

} // namespace

int send(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"), address_flags(args));
    const std::string payload = make_payload(args);
    const std::string packed = args.has("compress") ? compression_text(payload) : "";
    const auto cmd = static_cast<uint32_t>(args.number("cmd"));
    const auto timeout_s = static_cast<int32_t>(args.number("timeout"));
    const bool confirm = !args.has("no-confirm");
    catch_interrupts();
    Exchange exchange;
    const Module module;
    if (!confirm) watch_departures();
    for (uint64_t i = 0; i < args.number("count") && !interrupted(); ++i) {
        if (i > 0) pause(args.seconds("interval"));
        Record record("type", "sent", "to", address_text(destination), "cmd", cmd, "size", payload.size());
        record.add("confirmed", confirm);
        if (confirm) {
            exchange = {};
            tav_ipc_send2(module, &destination, cmd, payload.data(), static_cast<uint32_t>(payload.size()),
                          Exchange::on_status, &exchange, timeout_s);
            if (exchange.wait() == Wait::kInterrupted)
                throw Problem("interrupted: it is not known whether the message arrived");
            if (exchange.code != 0) throw failed_exchange(destination, exchange.code);
            record.add("us", Duration{exchange.took()});
        } else {
            send_plain(module, destination, cmd, payload, timeout_s);
        }
        out.say(record, "{to}: {size,} bytes",
                packed + (confirm ? record.fill(", delivered in {us}") : ", on its way"));
    }
    if (!confirm) wait_for_departures(destination);
    return interrupted() ? kFailure : kSuccess;
}

int listen(Console &out, const Args &args) {
    catch_interrupts();
    Module module(args.text("NAME"));
    Listener listener{out, args, module};
    tav_ipc_msg_recv(module, Listener::on_message, &listener);
    const bool raw = args.has("raw");
    if (!raw) out.say(Record("type", "ready", "as", module.text()), "listening as {as}; Ctrl-C ends it");
    run_until([&] { return args.number("count") > 0 && listener.seen >= args.number("count"); });
    if (!raw) out.say(Record("type", "end", "messages", listener.seen), "{messages,message}");
    return kSuccess;
}

} // namespace tavctl
