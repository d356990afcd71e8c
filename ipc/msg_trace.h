// One trace line about a message, from inside the library.
#pragma once

#include "common/log.h"
#include "tavipc/tav_ipc.h"

// Traces *header_ptr with a text of the caller. The arguments are evaluated only when level 4 is on.
#define TAV_TRACE(header_ptr, ...)                                                                           \
    do {                                                                                                     \
        if (error_output_check(4)) tav_ipc_msg_trace_ex("tav_ipc", __LINE__, header_ptr, __VA_ARGS__);       \
    } while (0)
