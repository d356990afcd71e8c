// Stand-ins for what decides who a process is: the allow-list gate and the agent id. A test that calls
// fake::identity() gets them in place of the library's own c_get_process and CreateAgentId.
#pragma once

#include <cstdint>

namespace fake {

struct Identity {
    int32_t process_result = 0; // c_get_process
    unsigned agent_id = 4711;   // CreateAgentId
    int agent_id_calls = 0;
};
Identity &identity();

} // namespace fake
