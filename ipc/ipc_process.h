// The process-wide variables about received files, and the reset of every component's process-wide variables.
//
// Each component keeps its own process-wide variables. Threads that each drive endpoints of their own share
// the relaxed ones. The configuration is loaded before they start, and the variables about received files
// belong to the one thread that receives files.
#pragma once

#include <cstdint>

#include <pthread.h>

#include "common/relaxed.h"
#include "tavbase.h"
#include "tavcl_ev.h"

namespace tavipc {

struct ProcessState {
    Relaxed<bool> file_ids_seeded = false;
    xhash_t *received_files = nullptr; // file id -> received file; lives as long as the process
    uint32_t files_open = 0;           // of received_files
    cl_timer_t file_sweep_timer = 0;
    uint64_t file_sweep_due = 0; // on the loop's clock
    pthread_t file_sweep_thread{};
};

inline ProcessState &process_state() {
    static constinit ProcessState state;
    return state;
}

// For tests: puts every component's process-wide variables back to their state at process start. (The rate
// limits of log lines are at their call sites, the agent id is in agentid/.)
void reset_process_state();

} // namespace tavipc
