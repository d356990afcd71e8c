// Every process-wide variable of the IPC core, in one place. Threads that each drive endpoints of their own
// share the relaxed ones; the configuration is there before they start, and what is about received files
// belongs to the one thread that receives them. (The log's rate limits stand at their call sites, the agent
// id in agentid/.)
#pragma once

#include <cstdint>

#include <pthread.h>

#include "common/relaxed.h"
#include "tavbase.h"
#include "tavcl_ev.h"
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
    Relaxed<bool> file_ids_seeded = false;
    xhash_t *received_files = nullptr; // file id -> received file; lives as long as the process
    uint32_t files_open = 0;           // of received_files
    cl_timer_t file_sweep_timer = 0;
    uint64_t file_sweep_due = 0; // on the loop's clock
    pthread_t file_sweep_thread{};
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
