// The message trace. It is on for messages with IPC_FLAG_TRACE, and for all while the switch file exists;
// the file is looked for at most once in ten seconds of the loop clock, by whichever message comes then.
#include "ipc/msg_trace.h"

#include <cstdarg>
#include <fcntl.h>
#include <unistd.h>

#include "common/facts.h"
#include "ipc/ipc_process.h"
#include "ipc/wire.h"
#include "tavaux.h"

namespace tavipc {
namespace {

constexpr uint64_t kLookInterval_ms = 10'000;

bool can_open(const char *path) {
    // Anyone may put anything at that path: a FIFO must not block us, a terminal not become ours.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return false;
    close(fd);
    return true;
}

bool trace_everything() {
    ProcessState &state = process_state();
    const uint64_t now = cl_event_loop_now();
    const uint64_t looked = state.trace_looked; // by a thread whose loop's clock may be ahead
    if (now < looked) {
        state.trace_looked = now;
    } else if (now - looked > kLookInterval_ms) {
        state.trace_all = can_open(kTraceSwitch);
        state.trace_looked = now;
    }
    return state.trace_all;
}

// Returns the number of characters written.
int describe(const tav_ipc_hdr_st &header, char *out, size_t size) {
    if (header.magic != 0 && header.magic != tav_ipc_hdr_magic(&header))
        return str_snprintf(out, size, "[Invalid message header] ");
    const tav_addr_st &src = header.src;
    const tav_addr_st &dest = header.dest;
    return str_snprintf(out, size,
                        "[%s@%u:%s:%x]->[%s@%u:%s:%x], reqid:%u, flags:0x%x, rflags: 0x%x, frag:%d:%d:%d, "
                        "cmd: %u, size: %u(%u), ",
                        name_text(src).text, src.hostid, tav_location_name(src.loc), unsigned{src.flags},
                        name_text(dest).text, dest.hostid, tav_location_name(dest.loc), unsigned{dest.flags},
                        header.reqid, unsigned{header.flags}, unsigned{header.rflags},
                        int{is_fragment(header)}, int{header.frag_id}, int{fragment_sequence(header)},
                        header.cmd, header.size, header.frag_orig);
}

} // namespace
} // namespace tavipc

extern "C" void tav_ipc_msg_trace_ex(const char *file, int line, const tav_ipc_hdr_st *header,
                                     const char *format, ...) noexcept {
    if (!header) return;
    if (!tavipc::trace_everything() && !(header->flags & IPC_FLAG_TRACE)) return;
    char text[1024];
    const int written = tavipc::describe(*header, text, sizeof text);
    va_list arguments;
    va_start(arguments, format);
    str_magic_vsprintf(text + written, sizeof text - static_cast<size_t>(written), format, arguments);
    va_end(arguments);
    error_output(4, file, line, "[MSG TRACE] %s\n", text);
}
