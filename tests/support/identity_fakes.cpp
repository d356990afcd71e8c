// The allow-list check and the agent id: a test that links this gets them in place of the library's own.
#include "fakes.h"
#include "tavipc/tav_agentid.h"

extern "C" int32_t c_get_process() noexcept { return -(errno = -fake::world().identity.process_result); }

unsigned int CreateAgentId() noexcept {
    ++fake::world().identity.agent_id_calls;
    return fake::world().identity.agent_id;
}
