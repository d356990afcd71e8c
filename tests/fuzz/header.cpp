// Lines about headers: a header of any 60 bytes is traced, handed to the raw send, refused, put back, dropped
// and reassembled with every log level on. No line may hold more than its buffer or be made of old memory.
#include "endpoint_world.h"
#include "input.h"

namespace {

void check_lines(const fake::World &w) {
    for (const auto &line : w.log.lines) {
        FUZZ_CHECK(line.level >= 0 && line.level <= 4 && !line.source.empty());
        if (line.text.starts_with("[MSG TRACE] ")) FUZZ_CHECK(line.text.size() <= 12 + 1023 + 1);
    }
}

void addresses(const tav_ipc_hdr_st &header) {
    FUZZ_CHECK(tav_addr_cmp(&header.src, &header.src) == 0);
    FUZZ_CHECK(tav_addr_cmp(&header.src, &header.dest) == tav_addr_cmp(&header.dest, &header.src));
    const tavipc::NameText name = tavipc::name_text(header.src);
    tav_addr_st *copy = tav_addr_create2(name, header.src.loc, header.src.hostid, header.src.flags);
    FUZZ_CHECK(!copy == (strlen(name) > TAV_IPC_NAME_MAX));
    FUZZ_CHECK(!copy || tav_addr_cmp(copy, &header.src) == 0);
    tav_addr_destroy(copy);
}

// What was sent carries the header, whole or cut.
void check_sent(const fake::World &w, const tav_ipc_hdr_st &header) {
    for (const fake::Send &send : w.event.sends) {
        const tav_ipc_hdr_st sent = tavipc::read_header(send.bytes.data());
        FUZZ_CHECK(sent.magic == tav_ipc_hdr_magic(&sent) && send.bytes.size() == 60u + sent.size);
        FUZZ_CHECK(sent.reqid == header.reqid && sent.cmd == header.cmd && sent.flags == header.flags);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    fake::World &w = fake::world();
    w = fake::World{};
    tavipc::reset_process_state();
    static uint64_t days = 0; // rate limits outlive an input
    w.clock.ticks_ms += ++days * 86'400'000;
    const uint8_t mode = in.u8(), statuses = in.u8();
    const uint32_t length = mode & 1 ? in.u16() * 2u : in.u8();
    std::string bytes = in.text(sizeof(tav_ipc_hdr_st));
    bytes.resize(sizeof(tav_ipc_hdr_st));
    tav_ipc_hdr_st header = tavipc::read_header(bytes.data());
    const std::string text = in.rest();

    if (mode & 2) header.flags |= IPC_FLAG_TRACE;
    if (mode & 4) header.magic = tav_ipc_hdr_magic(&header);
    tav_ipc_msg_trace_ex("file", 1, &header, "%s", text.c_str());
    check_lines(w);
    addresses(header);

    tav_ipc_st *ipc = tav_ipc_create("alpha");
    FUZZ_CHECK(ipc);
    header.size = length; // the buffer must hold it
    const std::unique_ptr<char[]> datagram(new char[sizeof header + length]());
    std::memcpy(datagram.get(), &header, sizeof header);
    w.event.fail_send = mode >> 3 & 1;
    const int result = tav_ipc_send_raw(ipc, mode & 16 ? text.c_str() : "beta", datagram.get());
    FUZZ_CHECK(result == IPC_OK || result == IPC_ERR_SENDTO);
    check_sent(w, header);
    w.event.complete_all(statuses % 6);
    w.event.advance(60);
    w.event.complete_all(statuses / 6 % 6);
    check_sent(w, header);

    if (header.frag_orig < 1u << 20) { // larger sets cost time, and the datagram target makes them
        header.magic = tav_ipc_hdr_magic(&header);
        std::memcpy(datagram.get(), &header, sizeof header);
        w.event.deliver(ipc->queue->default_mod->sock, {datagram.get(), sizeof header + length});
        w.clock.wall_s += 11;
        w.event.advance(60'000);
        FUZZ_CHECK(!ipc->frag_table || xhash_count(ipc->frag_table) == 0);
    }
    tav_ipc_destroy(ipc);
    check_lines(w);
    FUZZ_CHECK(w.event.timers.empty() && w.event.sockets.empty() && w.event.pending() == 0);
    w = fake::World{}; // what an input leaves would be looked through for leaks after each
    return 0;
}
