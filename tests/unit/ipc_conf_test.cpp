#include "ipc/ipc_conf.h"

#include <array>
#include <fstream>
#include <unistd.h>

#include "fakes.h"

using ConfTest = FakeWorld;

TEST_F(ConfTest, MissingAndBadValuesGetTheirDefaults) {
    using Words = std::array<uint32_t, 13>;
    const auto &words = reinterpret_cast<const Words &>(*get_ipc_proxy_conf());
    const std::tuple<std::string, uint32_t, uint32_t, uint32_t> cases[] = {
        {"3\n[transfer]\neagain_retry_interval_ms=200\neagain_max_retry_times=0\n", 7, 200, 0},
        {"-1\n[transfer]\neagain_retry_interval_ms=-1\neagain_max_retry_times=12x\n", 6, 1000, 12},
        {"1\n[transfer]\neagain_retry_interval_ms=99999999999\neagain_max_retry_times=2147483648\n", 7,
         INT32_MAX, INT32_MAX},
        {"", 6, 1000, 10}}; // no file
    const std::string path = testing::TempDir() + "ipc_conf_test." + std::to_string(getpid());
    for (const auto &[text, options, interval_ms, retry_times] : cases) {
        tavipc::reset_ipc_conf();
        std::ofstream(path) << "[ipc_proxy]\ndisable_offline_cache=" << text;
        if (text.empty()) unlink(path.c_str());
        EXPECT_EQ(load_ipc_proxy_conf(path.c_str()), 0);
        EXPECT_EQ(words, (Words{options, 1, 200000, 0, 0, interval_ms, retry_times, 10000, 60}));
    }
    EXPECT_EQ(w.log.count("config not found, set default: " + path, 2), 1);
}
