// The message trace. It is on for messages with IPC_FLAG_TRACE, and for all messages while the switch file
// exists. Tracing looks for the file at most once in ten seconds of the loop clock, when a message comes.
#include "ipc/msg_trace.h"

#include <cstdarg>
#include <fcntl.h>
#include <unistd.h>

#include "common/facts.h"
#include "common/relaxed.h"
#include "common/unique_fd.h"
#include "ipc/wire.h"
#include "tavaux.h"

namespace tavipc {
namespace {

constexpr uint64_t kLookInterval_ms = 10'000;

// Written by every thread that traces. Another thread's clock may be ahead of this one's.
constinit Relaxed<bool> trace_all = false;    // mirrors whether the switch file exists
constinit Relaxed<uint64_t> last_look_ms = 0; // loop clock

// Anyone may put anything at that path: opening a FIFO must not block, and a terminal must not become the
// controlling one.
bool can_open(const char *path) {
    return bool(UniqueFd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
}

bool trace_everything() {
    const uint64_t now_ms = cl_event_loop_now();
    const uint64_t looked_ms = last_look_ms;
    if (now_ms < looked_ms) {
        last_look_ms = now_ms;
    } else if (now_ms - looked_ms > kLookInterval_ms) {
        trace_all = can_open(kTraceSwitch);
        last_look_ms = now_ms;
    }
    return trace_all;
}

// Returns the number of characters written.
int describe(const tav_ipc_hdr_st &header, char *out, size_t size) {
    if (header.magic != 0 && header.magic != check_value(header))
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

void reset_msg_trace() {
    trace_all = false;
    last_look_ms = 0;
}

} // namespace tavipc

extern "C" void tav_ipc_msg_trace_ex(const char *file, int line, const tav_ipc_hdr_st *header,
                                     const char *format, ...) noexcept {
    if (!header) return;
    const tav_ipc_hdr_st aligned = tavipc::read_header(header);
    if (!tavipc::trace_everything() && !(aligned.flags & IPC_FLAG_TRACE)) return;
    char text[1024];
    const int written = tavipc::describe(aligned, text, sizeof text);
    va_list arguments;
    va_start(arguments, format);
    str_magic_vsprintf(text + written, sizeof text - static_cast<size_t>(written), format, arguments);
    va_end(arguments);
    error_output(4, file, line, "[MSG TRACE] %s\n", text);
}
