#include <fstream>
#include <unistd.h>

#include "fakes.h"
#include "ipc/ipc_process.h"

using ConfTest = FakeWorld;
using Words = std::vector<uint32_t>;

static Words words() {
    const auto *first = reinterpret_cast<const uint32_t *>(get_ipc_proxy_conf());
    return {first, first + 13};
}

TEST_F(ConfTest, LoadsWhatTheFileSaysAndDefaults) {
    EXPECT_EQ(words(), Words(13));
    const struct {
        const char *disable, *interval, *times;
        uint32_t options, interval_ms, retry_times;
    } cases[] = {{"3", "200", "0", 7, 200, 0},
                 {"2", "-1", "-2", 6, 1000, 10},
                 {"-1", "abc", "12x", 6, 0, 12},
                 {"1", "99999999999", "2147483648", 7, INT32_MAX, INT32_MAX}};
    const std::string path = testing::TempDir() + "ipc_conf_test." + std::to_string(getpid());
    for (const auto &[disable, interval, times, options, interval_ms, retry_times] : cases) {
        std::ofstream(path) << "[ipc_proxy]\ndisable_offline_cache=" << disable
                            << "\n[transfer]\neagain_retry_interval_ms=" << interval
                            << "\neagain_max_retry_times=" << times << "\n";
        EXPECT_EQ(load_ipc_proxy_conf(path.c_str()), 0);
        EXPECT_EQ(words(),
                  (Words{options, 1, 200000, 0, 0, interval_ms, retry_times, 10000, 60, 0, 0, 0, 0}));
    }
    unlink(path.c_str());
    tavipc::process_state().conf_loaded = false;
    EXPECT_EQ(load_ipc_proxy_conf(path.c_str()), 0);
    EXPECT_TRUE(tavipc::process_state().conf_loaded);
    EXPECT_EQ(words(), (Words{6, 1, 200000, 0, 0, 1000, 10, 10000, 60, 0, 0, 0, 0}));
    EXPECT_EQ(w.log.count("config not found, set default: " + path, 2), 1);
}

TEST_F(ConfTest, UnknownCodes) {
    for (int code : {-113, -100, 1, 1001, 1006}) EXPECT_STREQ(tav_ipc_strerror(code), "Unkown error");
    for (int code : {0, -101, -112, 1002, 1005}) EXPECT_STRNE(tav_ipc_strerror(code), "Unkown error");
}
