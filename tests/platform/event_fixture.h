// A directory for the sockets of a test, plain sockets as their peers, a clock to step, a record of outcomes.
#pragma once

#include <cstring>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tavcl_ev.h"
#include "temp_dir.h"

#ifdef SYS_clock_gettime64 // times are of 64 bits in 32 bits, too
constexpr long kGetTime = SYS_clock_gettime64, kSetTimer = SYS_timerfd_settime64;
#else
constexpr long kGetTime = SYS_clock_gettime, kSetTimer = SYS_timerfd_settime;
#endif
inline long skipped_s = 0; // the libraries' monotonic clock is ahead by these
#pragma GCC visibility push(default)
// The coarse clock is a millisecond late, as it can be where it has 1,000 ticks a second. libuv reads it
// there.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    const bool coarse = clock == CLOCK_MONOTONIC_COARSE;
    const long result = syscall(kGetTime, coarse ? CLOCK_MONOTONIC : clock, now);
    if (coarse && (now->tv_nsec -= 999'999) < 0) now->tv_nsec += 1'000'000'000, --now->tv_sec;
    if (coarse || clock == CLOCK_MONOTONIC) now->tv_sec += skipped_s;
    return static_cast<int>(result);
}
extern "C" int clock_getres(clockid_t, timespec *resolution) noexcept {
    return *resolution = {0, 1'000'000}, 0;
}
#ifdef SYS_clock_gettime64 // libuv has times of 32 bits there
struct ShortTime {
    long seconds, nanoseconds;
};
extern "C" int short_clock(clockid_t clock, ShortTime *now) noexcept __asm__("clock_gettime");
extern "C" inline __attribute__((used)) int short_clock(clockid_t clock, ShortTime *now) noexcept {
    timespec time{};
    const int result = clock_gettime(clock, &time);
    *now = {static_cast<long>(time.tv_sec), time.tv_nsec};
    return result;
}
#endif
extern "C" int timerfd_settime(int fd, int flags, const itimerspec *at, itimerspec *) noexcept {
    itimerspec real = *at;
    real.it_value.tv_sec -= skipped_s;
    return static_cast<int>(syscall(kSetTimer, fd, flags, &real, nullptr));
}
#pragma GCC visibility pop

inline cl_sockaddr_t address_of(const std::string &path) {
    cl_sockaddr_t address;
    EXPECT_EQ(cl_sockaddr_un_init(&address, path.c_str()), 0) << path;
    return address;
}

// A datagram socket without the event library: a peer that reads and dies when the test wants it. A bound one
// has room for eleven datagrams, as with the kernel's default, however long the queues of this machine are.
class RawPeer {
  public:
    explicit RawPeer(const std::string &path = {}, int type = SOCK_DGRAM)
        : fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)), path_(path) {
        if (path.empty()) return;
        const cl_sockaddr_t address = address_of(path);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address.addr), address.len), 0) << path;
        fill(11);
    }
    RawPeer(const RawPeer &) = delete;
    ~RawPeer() { close(fd_); }
    bool send(const std::string &path, const std::string &data) const {
        const cl_sockaddr_t to = address_of(path);
        const auto *generic = reinterpret_cast<const sockaddr *>(&to.addr);
        return sendto(fd_, data.data(), data.size(), MSG_DONTWAIT, generic, to.len) >= 0;
    }
    void fill(size_t room) const {
        for (bool more = true; more;) { // until a sender with an empty buffer finds it full
            const RawPeer from;
            for (more = false; from.send(path_, kFiller);) more = true;
        }
        for (char byte; room > 0 && recv(fd_, &byte, 1, MSG_DONTWAIT) >= 0;) --room;
    }
    // Returns at most `most` datagrams of those that have arrived, without those that fill it.
    std::vector<std::string> read(size_t most = SIZE_MAX) const {
        std::vector<std::string> got;
        std::string data(1 << 20, 0);
        for (ssize_t size;
             got.size() < most && (size = recv(fd_, data.data(), data.size(), MSG_DONTWAIT)) >= 0;)
            if (data.compare(0, static_cast<size_t>(size), kFiller) != 0)
                got.push_back(data.substr(0, static_cast<size_t>(size)));
        return got;
    }

  private:
    static constexpr char kFiller[] = "filler";
    const int fd_;
    const std::string path_;
};

struct EventTest : testing::Test {
    using OnDatagram = std::function<void(const std::string &data, const cl_sockaddr_t &from, int status)>;

    void TearDown() override { cl_event_loop_release(); }

    std::string path(const std::string &name) const { return directory_ / name; }
    cl_dunix_t create(const std::string &name) const {
        const cl_sockaddr_t address = address_of(path(name));
        return cl_dunix_create(&address, nullptr, nullptr);
    }
    static void close(cl_dunix_t socket) { cl_dunix_close(socket, nullptr, nullptr); }
    void receive(cl_dunix_t socket, OnDatagram on_datagram) {
        const auto received = [](cl_dunix_t, const void *data, uint32_t len, const cl_sockaddr_t *from,
                                 int status, void *context) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 16, 0u);
            const std::string text(static_cast<const char *>(data), len);
            (*static_cast<OnDatagram *>(context))(text, *from, status);
            EXPECT_TRUE(text.empty() || memcmp(data, text.data(), len) == 0) << "valid until the return";
        };
        EXPECT_EQ(cl_dunix_recv_start(socket, received, &receivers_.emplace_back(std::move(on_datagram))), 0);
    }
    // Sends data, which must stay valid, and counts the outcome in statuses_.
    int send(cl_dunix_t from, const std::string &to, const std::string &data) {
        const cl_sockaddr_t address = address_of(path(to));
        return cl_dunix_sendto2(from, &address, data.data(), static_cast<uint32_t>(data.size()), done, this);
    }
    static void done(cl_dunix_t, int status, void *self) {
        auto *test = static_cast<EventTest *>(self);
        ++test->reported_;
        ++test->statuses_[status];
        if (test->on_sent_) test->on_sent_(status);
    }
    static void run_until(const std::function<bool()> &condition) {
        for (int turns = 0; !condition(); ++turns) {
            ASSERT_LT(turns, 10'000);
            cl_event_loop_run_once(2);
        }
    }

    const TempDir directory_;
    std::deque<OnDatagram> receivers_;
    int reported_ = 0;
    std::map<int, int> statuses_;
    std::function<void(int)> on_sent_;
};
