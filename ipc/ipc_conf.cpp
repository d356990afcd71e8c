// The process-wide configuration record: all zero until the first load, and complete after each load. A key
// that is missing or negative gets its default.
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>

#include "common/log.h"
#include "ipc/ipc_conf.h"

namespace tavipc {
namespace {

static_assert(sizeof(ipc_proxy_conf_st) == 13 * sizeof(uint32_t));

constexpr uint32_t kDisableOfflineCache = 1;
constexpr uint32_t kAlwaysSet = 6; // bits 1 and 2 of the options

constexpr ipc_proxy_conf_st kDefaults = {
    .options = kAlwaysSet,
    .proxy1 = 1,
    .proxy2 = 200000,
    .reserved3 = {},
    .eagain_retry_interval_ms = 1000,
    .eagain_max_retry_times = 10,
    .proxy7 = 10000,
    .proxy8 = 60,
    .reserved9 = {},
};

constinit bool loaded = false;
constinit ipc_proxy_conf_st record{};

// A value of 0 or more, cut to 31 bits where long is wider, so the same file means the same everywhere.
std::optional<uint32_t> read_number(const ini_file_t *file, const char *section, const char *key) {
    const char *text = ini_file_get(file, section, key);
    if (!text) return std::nullopt;
    const long value = std::strtol(text, nullptr, 10);
    if (value < 0) return std::nullopt;
    constexpr long kMax = std::numeric_limits<int32_t>::max();
    return static_cast<uint32_t>(value < kMax ? value : kMax);
}

} // namespace

bool conf_loaded() { return loaded; }

void reset_ipc_conf() {
    loaded = false;
    record = {};
}

} // namespace tavipc

extern "C" {

int load_ipc_proxy_conf(const char *path) noexcept {
    using namespace tavipc;
    record = kDefaults;
    loaded = true;
    const std::unique_ptr<ini_file_t, decltype(&ini_file_free)> file(ini_file_load(path), &ini_file_free);
    if (!file) {
        TAV_LOG(2, "tav_ipc", "config not found, set default: %s", path ? path : "(null)");
        return 0;
    }
    if (read_number(file.get(), "ipc_proxy", "disable_offline_cache").value_or(0) & 1)
        record.options |= kDisableOfflineCache;
    record.eagain_retry_interval_ms = read_number(file.get(), "transfer", "eagain_retry_interval_ms")
                                          .value_or(kDefaults.eagain_retry_interval_ms);
    record.eagain_max_retry_times = read_number(file.get(), "transfer", "eagain_max_retry_times")
                                        .value_or(kDefaults.eagain_max_retry_times);
    return 0;
}

ipc_proxy_conf_st *get_ipc_proxy_conf() noexcept { return &tavipc::record; }

} // extern "C"
