#include "agentid/vm_id.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <jansson.h>
#include <memory>

#include "agentid/id_file.h"
#include "common/log.h"
#include "common/regular_file.h"

alignas(std::atomic_ref<uint64_t>::required_alignment) uint64_t g_vmid = 0;

namespace tavipc {
namespace {

constexpr char kGuestTool[] = "/usr/local/Velkaro/G2HProxy";
constexpr char kGuestToolOption[] = "-getvmid";
constexpr char kVmIdKey[] = "vmid";
constexpr size_t kShellSize = 1024; // bytes of a command, and of its output: one line of JSON
constexpr long kIdOnlySize = 4;     // bytes of a machineid without MAC addresses

// Threads may determine the id at the same time. Applications that read the variable itself do so afterwards.
std::atomic_ref<uint64_t> known_id() noexcept { return std::atomic_ref(g_vmid); }

struct JsonDecref {
    void operator()(json_t *value) const noexcept { json_decref(value); }
};

// Converts through a double. Clamps a value that is not an unsigned 64-bit number: negative values and NaN to
// 0, too large values to the maximum.
uint64_t to_vm_id(const char *text) noexcept {
    const double value = strtod(text, nullptr);
    if (!(value > 0)) return 0;
    if (value >= 18446744073709551616.0) return UINT64_MAX;
    return static_cast<uint64_t>(value);
}

uint64_t run_guest_tool() noexcept {
    char tool[kShellSize];
    char command[kShellSize];
    char output[kShellSize] = "";
    str_snprintf(tool, sizeof tool, "%s%s", "", kGuestTool);
    str_snprintf(command, sizeof command, "\"%s\" %s 2>/dev/null | grep vmid", tool, kGuestToolOption);
    if (shell_execute(command, output, sizeof output) != 0) {
        TAV_LOG(2, "tav_agentid", "execute %s failed", command);
        return 0;
    }
    const std::unique_ptr<json_t, JsonDecref> root(json_loads(output, 0, nullptr));
    if (!root) {
        TAV_LOG(2, "tav_agentid", "G2Hproxy command %s result %s not json", command, output);
        return 0;
    }
    const json_t *member = json_object_get(root.get(), kVmIdKey); // borrowed from root
    if (!json_is_string(member)) {
        TAV_LOG(2, "tav_agentid", "G2Hproxy return not contain %s", kVmIdKey);
        return 0;
    }
    const char *text = json_string_value(member);
    if (!text) {
        TAV_LOG(2, "tav_agentid", "json_string_value null");
        return 0;
    }
    return to_vm_id(text);
}

bool holds_mac_based_id(FILE *file) noexcept {
    return file && fseek(file, 0, SEEK_END) == 0 && ftell(file) > kIdOnlySize;
}

} // namespace
} // namespace tavipc

using namespace tavipc;

uint64_t GetVMID(bool use_global) noexcept {
    TAV_LOG(4, "tav_agentid", "GetVMID, use global vmid: %d", static_cast<int>(use_global));
    if (const uint64_t known = known_id(); use_global && known != 0) return known;
    const uint64_t id = run_guest_tool();
    if (use_global && id != 0) known_id() = id;
    return id;
}

uint64_t tav_get_vmidid() noexcept { return GetVMID(true); }

uint64_t tav_get_vmidid_from_G2HProxy() noexcept { return GetVMID(false); }

unsigned int CreateAgentIdByVMID(const char *machineid_path) noexcept {
    if (!machineid_path) {
        TAV_LOG(2, "tav_agentid", "null path parameter inputed");
        return 0;
    }
    FilePtr file = open_regular_to_read(machineid_path);
    if (holds_mac_based_id(file.get())) {
        TAV_LOG(3, "tav_agentid", "agent id already calculated by MAC");
        return 0;
    }
    uint64_t vm_id = known_id();
    if (vm_id == 0) vm_id = GetVMID(true);
    if (vm_id == 0) {
        file.reset();
        TAV_LOG(1, "tav_agentid", "get current vmid failed, get vmid failed, abort process");
        abort();
    }
    const auto low_word = static_cast<uint32_t>(vm_id);
    char text[20];
    str_snprintf(text, sizeof text, "%u", static_cast<unsigned int>(low_word));
    const unsigned int id = orlask_crc32(text, static_cast<uint32_t>(strlen(text)));
    TAV_LOG(4, "tav_agentid", "vmid %s transfer to agent_id %u", text, id);
    if (id != 0) {
        SaveAgentId(machineid_path, id, nullptr, 0, nullptr);
        TAV_LOG(3, "tav_agentid", "agent_id %u, current vmid = %lu", id,
                static_cast<unsigned long>(low_word));
    }
    return id;
}
