// One trace line about a message, from inside the library.
#pragma once

#include "common/log.h"
#include "tavipc/tav_ipc.h"

// Traces *header_ptr with the caller's text. The arguments are evaluated only when level 4 is on.
#define TAV_TRACE(header_ptr, ...)                                                                           \
    do {                                                                                                     \
        if (error_output_check(4)) tav_ipc_msg_trace_ex("tav_ipc", __LINE__, header_ptr, __VA_ARGS__);       \
    } while (0)

namespace tavipc {

// For tests: forgets whether the switch file was there, and when it was looked for.
void reset_msg_trace();

} // namespace tavipc
