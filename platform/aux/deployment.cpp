// Deployment facts. The file is loaded on the first question and kept, parsed, for the life of the process:
// texts that are handed out point into it. It is never released, so that threads may still ask while the
// process ends. When the process lacks the memory or descriptors to read it, the defaults are told, and the
// next question tries again.
#include "tavaux.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "tavbase.h"

namespace {

constexpr size_t kMaxDeployType = 64;

struct Facts {
    const ini_file_t *file = nullptr; // null: none, the defaults hold
    int location = 1;
    const char *deploy_type = nullptr;
    const char *agent_type = "linux";
    bool cnapp = false;
    uint32_t hostid = 0;
};

// The number that is the whole text, or the default.
template <typename Number> Number number_or(const char *text, Number otherwise) {
    if (!text) return otherwise;
    Number number{};
    const char *end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    return error == std::errc() && stop == end ? number : otherwise;
}

// It becomes part of a path below /var and must not lead out of it.
bool valid_deploy_type(std::string_view text) {
    return !text.empty() && text.size() <= kMaxDeployType && text.front() != '/' &&
           text.find("..") == text.npos;
}

bool may_pass(int error) {
    return error == ENOMEM || error == EMFILE || error == ENFILE || error == EINTR || error == EIO;
}

// Null, with errno set, when there is no such file or it cannot be read.
const ini_file_t *load_file() {
    char path[PATH_MAX];
    errno = 0;
    return dirutils_path_transform("@/../config/agent.ini", path, sizeof path) == 0 ? ini_file_load(path)
                                                                                    : nullptr;
}

Facts read_facts(const ini_file_t *file) {
    Facts facts;
    facts.file = file;
    if (!file) return facts;
    const auto get = [&](const char *key) { return ini_file_get(file, "agent", key); };
    facts.location = number_or(get("location"), facts.location);
    if (const char *text = get("deploy_type"); text && valid_deploy_type(text)) facts.deploy_type = text;
    if (const char *text = get("agent_type")) facts.agent_type = text;
    facts.cnapp = number_or(get("cnapp"), 0) != 0;
    facts.hostid = number_or(get("hostid"), facts.hostid);
    return facts;
}

const Facts &load_facts(std::atomic<const Facts *> &known) {
    static const Facts defaults;
    static std::mutex mutex;
    static constinit std::optional<Facts> kept;
    const std::lock_guard lock(mutex);
    if (!kept) {
        const ini_file_t *file = load_file();
        if (!file && may_pass(errno)) return defaults;
        known = &kept.emplace(read_facts(file));
    }
    return *kept;
}

const Facts &facts() {
    static constinit std::atomic<const Facts *> known{nullptr};
    const Facts *found = known.load(std::memory_order_acquire);
    return found ? *found : load_facts(known);
}

// Numbers as texts that stay where they are; made when a location without a name is first asked for.
const char *number_text(int number) {
    static std::mutex mutex;
    static auto &texts = *new std::map<int, std::string>;
    const std::lock_guard lock(mutex);
    auto &text = texts[number];
    if (text.empty()) text = std::to_string(number);
    return text.c_str();
}

} // namespace

int tav_get_location() noexcept { return facts().location; }

const char *tav_location_name(int location) noexcept {
    try {
        if (facts().file) {
            const std::string key = std::to_string(location);
            if (const char *name = ini_file_get(facts().file, "locations", key.c_str()); name && *name)
                return name;
        }
        return number_text(location);
    } catch (const std::exception &) {
        return "?"; // memory is short
    }
}

const char *GetDeployTypeStr() noexcept { return facts().deploy_type; }

int IsCNAPPAgent() noexcept { return facts().cnapp ? 1 : 0; }

uint32_t get_hostid() noexcept { return facts().hostid; }

int GetAgentType(char *buffer, int size) noexcept {
    const char *text = facts().agent_type;
    const size_t length = strlen(text);
    if (!buffer || size <= 0 || length == 0 || length >= static_cast<size_t>(size)) return -1;
    memcpy(buffer, text, length + 1);
    return static_cast<int>(length);
}
