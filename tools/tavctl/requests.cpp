// tavctl request and reply: questions and answers.
#include "commands.h"
#include "module.h"
#include "payload.h"

namespace tavctl {
namespace {

struct Answer {
    bool ended = false;
    int32_t code = 0;
    uint32_t cmd = 0;
    std::string payload;
};
int on_answer(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
    *static_cast<Answer *>(user) = {true, code, cmd, std::string(static_cast<const char *>(data), len)};
    return 0;
}

struct Server {
    Console &out;
    const ReplyOptions &options;
    std::string payload;
    uint8_t flags;
    uint64_t answered = 0;

    void answer(tav_ipc_st *ipc, const tav_addr_st &src, uint32_t reqid, uint32_t cmd,
                std::string_view request) {
        if (options.count > 0 && answered >= options.count)
            return; // of those that came together with the last
        const std::string_view bytes = options.echo ? request : std::string_view(payload);
        tav_addr_st destination = src;
        destination.flags |= flags;
        tav_ipc_response(ipc, &destination, reqid, options.command.value_or(cmd + 1), bytes.data(),
                         static_cast<uint32_t>(bytes.size()));
        ++answered;
        if (options.quiet) return;
        Record record;
        record.add("type", "request")
            .add("time", clock_text())
            .add("from", address_text(src))
            .add("reqid", reqid);
        record.add("cmd", cmd).add("answered", bytes.size());
        const std::string text = describe_payload(record, request, {});
        out.say(record, clock_text() + "  request " + std::to_string(reqid) + " from " + address_text(src) +
                            ", cmd " + std::to_string(cmd) + ", " + grouped(request.size()) +
                            " bytes; answered with " + grouped(bytes.size()) +
                            (text.empty() ? "" : "\n" + text));
    }
};

int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
               uint32_t size, void *user) {
    static_cast<Server *>(user)->answer(ipc, *src, reqid, cmd, {static_cast<const char *>(data), size});
    return 0;
}

} // namespace

int request(Console &out, const RequestOptions &options) {
    const tav_addr_st destination = parse_address(options.destination, address_flags(options.payload));
    const std::string payload = make_payload(options.payload), who = address_text(destination);
    catch_interrupts();
    Answer answer; // before the endpoint: its end completes what is outstanding
    const Module module(Module::kReceiving);
    const double begin = now_seconds();
    tav_ipc_make_request(module, &destination, options.command, payload.data(),
                         static_cast<uint32_t>(payload.size()), on_answer, &answer, options.timeout_s);
    if (run_until([&] { return answer.ended; }) == Wait::kInterrupted)
        throw Problem("interrupted before an answer came");
    const double took = now_seconds() - begin;
    if (answer.code != 0) throw failed_exchange(destination, answer.code);
    if (options.raw) {
        write_raw(answer.payload);
        return kSuccess;
    }
    Record record;
    record.add("type", "answer").add("from", who).add("cmd", answer.cmd).add("us", took * 1e6);
    const std::string text =
        describe_payload(record, answer.payload, {options.hex, false, options.max_bytes});
    out.say(record, who + " answered after " + time_text(took) + ": cmd " + std::to_string(answer.cmd) +
                        ", " + grouped(answer.payload.size()) + " bytes" + (text.empty() ? "" : "\n" + text));
    return kSuccess;
}

int reply(Console &out, const ReplyOptions &options) {
    if (options.echo && (options.payload.data || options.payload.file))
        throw misuse("--echo answers with the request's bytes: no payload may be given");
    Server server{out, options, options.echo ? std::string() : make_payload(options.payload),
                  address_flags(options.payload)};
    catch_interrupts();
    const Module module(Module::kReceiving, options.name);
    tav_ipc_on_request(module, on_request, &server);
    out.say(Record().add("type", "ready").add("as", module.text()),
            "answering as " + module.text() + "; Ctrl-C ends it");
    run_until([&] { return options.count > 0 && server.answered >= options.count; });
    if (options.count > 0) run_until([] { return false; }, 50ms); // the last answer leaves
    out.say(Record().add("type", "end").add("answered", server.answered),
            grouped(server.answered) + (server.answered == 1 ? " request answered" : " requests answered"));
    return kSuccess;
}

} // namespace tavctl
