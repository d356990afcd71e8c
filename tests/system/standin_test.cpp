// A program that puts its own cl_dunix_sendto2 in the library's place sees every datagram: none goes past it.
// The test starts its own program as a module.
#include <cstring>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "installation.h"
#include "tavcl_ev.h"
#include "tavipc/tav_ipc.h"

using namespace tavipc::stage;

static int seen = 0;

#pragma GCC visibility push(default)
extern "C" int cl_dunix_sendto2(cl_dunix_t socket, const cl_sockaddr_t *address, const void *data,
                                uint32_t len, cl_dunix_send_cb callback, void *context) noexcept {
    static const auto next =
        reinterpret_cast<decltype(&cl_dunix_sendto2)>(dlsym(RTLD_NEXT, "cl_dunix_sendto2"));
    ++seen;
    return next(socket, address, data, len, callback, context);
}
#pragma GCC visibility pop

static int run_module() {
    int received = 0;
    tav_ipc_st *ipc = tav_ipc_create("one");
    const tav_addr_st self = *tav_ipc_get_local_addr(ipc);
    tav_ipc_msg_recv(
        ipc, [](auto, auto, auto, auto, auto, void *count) { return ++*static_cast<int *>(count), 0; },
        &received);
    const std::string payload(64'001, 'p');
    for (const uint32_t size : {100u, 100u, 64'001u}) tav_ipc_send(ipc, &self, 0, payload.data(), size);
    while (received < 3) cl_event_loop_run_once(100);
    tav_ipc_destroy(ipc);
    std::printf("%d messages, %d datagrams\n", received, seen);
    return 0;
}

TEST(StandIn, SeesEveryDatagram) {
    const Installation place{{}};
    place.allow({"one"});
    place.put("one", std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_EQ(place.start("one", {}, {"module"}).expect("", 90s), "3 messages, 4 datagrams");
}

int main(int argc, char **argv) {
    if (argc == 2 && argv[1] == std::string_view("module")) return run_module();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
