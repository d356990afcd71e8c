// Every process-wide variable of the IPC core, in one place. None is synchronised: one thread of a process
// drives its endpoints. (The log's rate limits stand at their call sites, the agent id in agentid/.)
#pragma once

#include <cstdint>

#include "tavbase.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc.h"

namespace tavipc {

struct ProcessState {
    uint32_t hostid = 0;       // cached host id, 0 = not known
    uint16_t trace_flag = 0;   // IPC_FLAG_TRACE after IPC_TEST, ORed into every header
    uint32_t last_reqid = 0;   // last message id drawn
    bool conf_loaded = false;  // load_ipc_proxy_conf has run
    ipc_proxy_conf_st conf{};  // its record
    bool trace_all = false;    // mirrors whether /tmp/ipc_debug exists
    uint64_t trace_looked = 0; // loop clock, ms, of the last look for it
    bool file_ids_seeded = false;
    xhash_t *received_files = nullptr; // file id -> received file; lives as long as the process
    uint32_t files_open = 0;           // of received_files
    cl_timer_t file_sweep_timer = 0;
    bool pool_files_swept = false;
};

inline ProcessState &process_state() {
    static constinit ProcessState state;
    return state;
}

// A new message id: counts from 1 and skips 0.
inline uint32_t next_reqid() {
    uint32_t &last = process_state().last_reqid;
    if (++last == 0) last = 1;
    return last;
}

} // namespace tavipc
