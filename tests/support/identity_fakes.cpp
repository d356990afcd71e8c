#include "identity_fakes.h"

#include "tavipc/tav_agentid.h"

namespace fake {

Identity &identity() {
    static Identity instance;
    return instance;
}

} // namespace fake

extern "C" int32_t c_get_process() noexcept { return fake::identity().process_result; }

unsigned int CreateAgentId() noexcept {
    ++fake::identity().agent_id_calls;
    return fake::identity().agent_id;
}
