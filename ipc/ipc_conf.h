// The process-wide IPC configuration: whether it was loaded. tav_ipc.h declares the record itself.
#pragma once

#include "tavipc/tav_ipc.h"

namespace tavipc {

// Whether load_ipc_proxy_conf has run: the retry rule for a busy destination depends on it.
bool conf_loaded();

// For tests: back to the state before the first load.
void reset_ipc_conf();

} // namespace tavipc
