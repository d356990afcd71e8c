// Process-wide variables of the IPC core. Threads that each drive endpoints of their own share the relaxed
// ones; the configuration is loaded before they start. (Variables about files are in ipc_file_*.cpp, the
// log's rate limits at their call sites, the agent id in agentid/.)
#pragma once

#include <cstdint>

#include "common/relaxed.h"
#include "tavipc/tav_ipc.h"

namespace tavipc {

struct ProcessState {
    Relaxed<uint32_t> hostid = 0;       // cached host id, 0 = not known
    Relaxed<uint16_t> trace_flag = 0;   // IPC_FLAG_TRACE after IPC_TEST, ORed into every header
    Relaxed<uint32_t> last_reqid = 0;   // last message id drawn
    bool conf_loaded = false;           // load_ipc_proxy_conf has run
    ipc_proxy_conf_st conf{};           // its record
    Relaxed<bool> trace_all = false;    // mirrors whether /tmp/ipc_debug exists
    Relaxed<uint64_t> trace_looked = 0; // loop clock, ms, of the last look for it
    Relaxed<bool> pool_files_swept = false;
};

inline ProcessState &process_state() {
    static constinit ProcessState state;
    return state;
}

// A new message id, no other thread has it: counts from 1 and skips 0.
inline uint32_t next_reqid() {
    const uint32_t id = ++process_state().last_reqid;
    return id != 0 ? id : next_reqid();
}

} // namespace tavipc
