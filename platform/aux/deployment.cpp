// Deployment facts. The first question loads the file. The parsed file is kept for the life of the process,
// because returned texts point into it, and is never released, because threads may still ask while the
// process ends. When memory or descriptors are too short to read it, the defaults are returned and the next
// question tries again.
#include "tavaux.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <string>
#include <string_view>

#include "tavbase.h"

namespace {

constexpr size_t kMaxDeployType = 64; // bytes; a socket path of 107 needs the rest for the other parts

struct Facts {
    const ini_file_t *file = nullptr; // null without a file; the defaults then hold
    int location = 1;
    const char *deploy_type = nullptr;
    const char *agent_type = "linux";
    bool cnapp = false;
    uint32_t hostid = 0;
};

// Returns the number if it is the whole text, else the default.
template <typename Number> Number number_or(const char *text, Number otherwise) {
    if (!text) return otherwise;
    Number number{};
    const char *end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    return error == std::errc() && stop == end ? number : otherwise;
}

// The value becomes part of a path below /var and must not leave it.
bool valid_deploy_type(std::string_view text) {
    return !text.empty() && text.size() <= kMaxDeployType && text.front() != '/' &&
           text.find("..") == text.npos;
}

// Whether a later try may succeed.
bool is_temporary(int error) {
    return error == ENOMEM || error == EMFILE || error == ENFILE || error == EINTR || error == EIO;
}

// Returns null, with errno set, when the file is missing or cannot be read.
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

constinit std::mutex facts_mutex, texts_mutex; // no frame holds both

void lock_both() { facts_mutex.lock(), texts_mutex.lock(); }
void unlock_both() { texts_mutex.unlock(), facts_mutex.unlock(); }

// When the library is loaded, so that no fork takes a locked mutex into the child. (Nor a static variable
// that another thread was initialising: there are only constinit ones.)
[[maybe_unused]] const int fork_handlers = pthread_atfork(lock_both, unlock_both, unlock_both);

const Facts &load_facts(std::atomic<const Facts *> &known) {
    static constinit const Facts defaults;
    static constinit std::optional<Facts> kept;
    const std::lock_guard lock(facts_mutex);
    if (!kept) {
        const ini_file_t *file = load_file();
        if (!file && is_temporary(errno)) return defaults;
        known = &kept.emplace(read_facts(file));
    }
    return *kept;
}

const Facts &facts() {
    static constinit std::atomic<const Facts *> known{nullptr};
    const Facts *found = known.load(std::memory_order_acquire);
    return found ? *found : load_facts(known);
}

// Returns the number as text, at an address that stays valid. A text is made when it is first asked for.
const char *number_text(int number) {
    static constinit std::map<int, std::string> *texts = nullptr; // made under the lock: see fork_handlers
    const std::lock_guard lock(texts_mutex);
    if (!texts) texts = new std::map<int, std::string>;
    auto &text = (*texts)[number];
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
