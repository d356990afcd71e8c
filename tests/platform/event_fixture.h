// A place for the sockets of a test, plain sockets as their peers, and a record of outcomes.
#pragma once

#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "tavcl_ev.h"
#include "temp_dir.h"

inline cl_sockaddr_t address_of(const std::string &path) {
    cl_sockaddr_t address;
    EXPECT_EQ(cl_sockaddr_un_init(&address, path.c_str()), 0) << path;
    return address;
}

// A datagram socket outside of the event library: a peer that reads and dies when the test says so.
class RawPeer {
  public:
    explicit RawPeer(const std::string &path = {}) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (path.empty()) return;
        const cl_sockaddr_t address = address_of(path);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address.addr), address.len), 0) << path;
    }
    RawPeer(RawPeer &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    ~RawPeer() { die(); }

    void die() {
        if (fd_ >= 0) close(std::exchange(fd_, -1));
    }
    bool send(const std::string &path, const std::string &data) const {
        const cl_sockaddr_t to = address_of(path);
        const auto *generic = reinterpret_cast<const sockaddr *>(&to.addr);
        return sendto(fd_, data.data(), data.size(), MSG_DONTWAIT, generic, to.len) >= 0;
    }
    // Up to most datagrams that are there.
    std::vector<std::string> read(size_t most = SIZE_MAX) const {
        std::vector<std::string> got;
        for (ssize_t len;
             got.size() < most && (len = recv(fd_, nullptr, 0, MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC)) >= 0;) {
            std::string &data = got.emplace_back(static_cast<size_t>(len), '\0');
            EXPECT_EQ(recv(fd_, data.data(), data.size(), MSG_DONTWAIT), len);
        }
        return got;
    }

  private:
    int fd_;
};

class EventTest : public testing::Test {
  protected:
    void TearDown() override { cl_event_loop_release(); }

    std::string path(const std::string &name) const { return directory_ / name; }
    cl_dunix_t create(const std::string &name) const {
        const cl_sockaddr_t address = address_of(path(name));
        return cl_dunix_create(&address, nullptr, nullptr);
    }
    static void close(cl_dunix_t socket) { cl_dunix_close(socket, nullptr, nullptr); }

    // Sends data, which must live on, and counts the outcome in statuses_.
    int send(cl_dunix_t from, const std::string &to, const std::string &data) {
        const cl_sockaddr_t address = address_of(path(to));
        return cl_dunix_sendto2(from, &address, data.data(), static_cast<uint32_t>(data.size()), done, this);
    }
    static void done(cl_dunix_t, int status, void *self) {
        auto *test = static_cast<EventTest *>(self);
        ++test->statuses_[status];
        if (test->on_sent_) test->on_sent_(status);
    }
    // Runs the loop until the condition holds; a failure after ten seconds.
    static void run_until(const std::function<bool()> &condition) {
        const uint64_t end = cl_event_loop_now() + 10'000;
        while (!condition()) {
            ASSERT_LT(cl_event_loop_now(), end);
            cl_event_loop_run_once(5);
        }
    }
    // Runs the loop for a while.
    static void run_for(uint64_t delay_ms) {
        const cl_timer_t timer = cl_timer_start(
            delay_ms, [](void *) { cl_event_loop_stop(); }, nullptr);
        cl_event_loop_run();
        cl_timer_stop(timer);
    }
    int reported() const {
        int sum = 0;
        for (const auto &[status, count] : statuses_) sum += count;
        return sum;
    }

    const TempDir directory_;
    std::map<int, int> statuses_;
    std::function<void(int)> on_sent_;
};

// Receives with a function of the test.
using OnDatagram = std::function<void(cl_dunix_t socket, const void *data, uint32_t len,
                                      const cl_sockaddr_t *from, int status)>;
inline int receive(cl_dunix_t socket, OnDatagram &on_datagram) {
    const auto received = [](cl_dunix_t at, const void *data, uint32_t len, const cl_sockaddr_t *from,
                             int status, void *context) {
        (*static_cast<OnDatagram *>(context))(at, data, len, from, status);
    };
    return cl_dunix_recv_start(socket, received, &on_datagram);
}

// libuv, which only the event library links.
struct UvFunctions {
    template <class Function> static Function *find(const char *name) {
        return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
    }
    uv_loop_s *make_loop() {
        memory.resize(find<size_t()>("uv_loop_size")());
        auto *loop = reinterpret_cast<uv_loop_s *>(memory.data());
        EXPECT_EQ(find<int(uv_loop_s *)>("uv_loop_init")(loop), 0);
        return loop;
    }

    std::vector<char> memory;
    int (*const run)(uv_loop_s *, int mode) = find<int(uv_loop_s *, int)>("uv_run"); // 0: to the end, 1: a turn
    int (*const fork)(uv_loop_s *) = find<int(uv_loop_s *)>("uv_loop_fork");
    int (*const close)(uv_loop_s *) = find<int(uv_loop_s *)>("uv_loop_close");
};
