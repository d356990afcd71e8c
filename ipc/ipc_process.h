// Each component keeps its own process-wide variables. Threads that each drive endpoints of their own share
// the relaxed ones. The configuration is loaded before they start, and the variables about received files
// belong to the one thread that receives files.
#pragma once

namespace tavipc {

// For tests: puts every component's process-wide variables back to their state at process start, and removes
// all received files. (The rate limits of log lines are at their call sites, the agent id is in agentid/.)
void reset_process_state();

} // namespace tavipc
