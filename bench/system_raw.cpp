// Unix datagrams and epoll, as fast as they can be driven by hand: connected sockets, 4 MiB of send buffer,
// EPOLLOUT to wait. Message boundaries and order come from the kernel. A message of more than 64,000 bytes is
// sent in parts, whose number both ends know.
//
// pair: one socket at each end, connected to each other. Only the send buffer limits what waits.
// open: each end receives on a socket that anybody may send to, as a process with several peers must, and
//       sends through another one, connected to the peer's. The kernel lets net.unix.max_dgram_qlen
//       datagrams wait.
// mmsg, mmsg-open: the same, with as many datagrams per system call as there are.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "link.h"

namespace bench {
namespace {

constexpr int kMostPerTurn = 64;
constexpr int kSendBuffer = 4 << 20;

sockaddr_un address(const std::string &path) {
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    path.copy(result.sun_path, sizeof result.sun_path - 1);
    return result;
}

int make_socket() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    check(fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer) == 0, "socket");
    return fd;
}

class RawLink : public MessageLink {
  public:
    RawLink(const Ends &ends, bool pair) : ends_(ends), in_(make_socket()), out_(pair ? in_ : make_socket()) {
        const sockaddr_un own = address(path(ends.server, ends.client));
        unlink(own.sun_path);
        check(bind(in_, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0, own.sun_path);
        if (!ends.server) connect_to(path(true, 0));
        epoll_ = epoll_create1(EPOLL_CLOEXEC);
        watch(EPOLL_CTL_ADD, in_, EPOLLIN);
        if (out_ != in_) watch(EPOLL_CTL_ADD, out_, 0);
    }

    void turn(int timeout_ms) override {
        if (blocked() != watching_) {
            watching_ = blocked();
            watch(EPOLL_CTL_MOD, out_, (watching_ ? EPOLLOUT : 0u) | (out_ == in_ ? EPOLLIN : 0u));
        }
        epoll_event events[2];
        const int count = epoll_wait(epoll_, events, 2, timeout_ms);
        for (int i = 0; i < count; ++i) {
            if (events[i].events & EPOLLOUT) writable();
            if (events[i].events & EPOLLIN) receive();
        }
    }

  protected:
    bool try_send(const void *data, size_t size) override {
        while (sent_ < size) {
            const size_t part = std::min(size - sent_, kChunk);
            if (::send(out_, static_cast<const char *>(data) + sent_, part, MSG_NOSIGNAL) < 0) {
                check(errno == EAGAIN, "send");
                return false;
            }
            sent_ += part;
        }
        sent_ = 0;
        return true;
    }

    virtual void receive() {
        for (int i = 0; i < kMostPerTurn; ++i) {
            // What is large is put together where it arrives.
            if (large() && !whole_) whole_ = static_cast<char *>(std::malloc(ends_.size));
            char *place = large() ? whole_ + arrived_ : buffer_.data();
            const size_t room = large() ? std::min(kChunk, ends_.size - arrived_) : buffer_.size();
            const ssize_t got = recv(in_, place, room, 0);
            if (got < 0) return check(errno == EAGAIN, "recv");
            take(place, static_cast<size_t>(got));
        }
    }

    // A datagram of a large message, or a whole message.
    void take(char *place, size_t size) {
        if (!connected_) connect_to(path(false, 0));
        if (!large() || (arrived_ == 0 && size < kChunk)) return handle(place, size);
        arrived_ += size;
        if (arrived_ < ends_.size) return;
        handle(whole_, ends_.size);
        std::free(whole_);
        whole_ = nullptr;
        arrived_ = 0;
    }

    bool large() const { return ends_.server && ends_.size > kChunk; }
    int in() const { return in_; }
    int out() const { return out_; }

  private:
    std::string path(bool server, int client) const {
        return ends_.dir + (server ? "/server" : "/client" + std::to_string(client));
    }

    void connect_to(const std::string &path) {
        connected_ = true;
        if (ends_.server && ends_.clients > 1) return; // it receives only
        const sockaddr_un peer = address(path);
        check(connect(out_, reinterpret_cast<const sockaddr *>(&peer), sizeof peer) == 0, peer.sun_path);
    }

    void watch(int operation, int fd, uint32_t events) {
        epoll_event event{};
        event.events = events;
        check(epoll_ctl(epoll_, operation, fd, &event) == 0, "epoll_ctl");
    }

    Ends ends_;
    int in_, out_;
    int epoll_;
    bool connected_ = false;
    bool watching_ = false;
    size_t sent_ = 0; // of the message that is tried
    char *whole_ = nullptr;
    size_t arrived_ = 0;
    std::vector<char> buffer_ = std::vector<char>(kChunk + 64);
};

class MmsgLink : public RawLink {
  public:
    MmsgLink(const Ends &ends, bool pair) : RawLink(ends, pair) {}

    void turn(int timeout_ms) override {
        if (!flush()) block();
        RawLink::turn(timeout_ms);
        if (!flush()) block();
    }

  protected:
    bool try_send(const void *data, size_t size) override {
        if (size > kSlot) return flush() && RawLink::try_send(data, size);
        if (filled_ == kBatch && !flush()) return false;
        std::memcpy(slots_[filled_], data, size);
        sizes_[filled_++] = size;
        return true;
    }

    void receive() override {
        if (large()) return RawLink::receive();
        for (int left = kMostPerTurn; left > 0; left -= static_cast<int>(kBatch)) {
            mmsghdr headers[kBatch] = {};
            iovec places[kBatch];
            for (size_t i = 0; i < kBatch; ++i) {
                places[i] = {&rooms_[i * kRoom], kRoom};
                headers[i].msg_hdr.msg_iov = &places[i];
                headers[i].msg_hdr.msg_iovlen = 1;
            }
            const int got = recvmmsg(in(), headers, kBatch, 0, nullptr);
            if (got < 0) return check(errno == EAGAIN, "recvmmsg");
            for (int i = 0; i < got; ++i) take(&rooms_[static_cast<size_t>(i) * kRoom], headers[i].msg_len);
            if (got < static_cast<int>(kBatch)) return;
        }
    }

  private:
    static constexpr size_t kBatch = 16, kSlot = 4096, kRoom = kChunk + 128;

    // True when nothing is left.
    bool flush() {
        mmsghdr headers[kBatch] = {};
        iovec places[kBatch];
        for (size_t i = first_; i < filled_; ++i) {
            places[i] = {slots_[i], sizes_[i]};
            headers[i].msg_hdr.msg_iov = &places[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        while (first_ < filled_) {
            const int sent =
                sendmmsg(out(), headers + first_, static_cast<unsigned>(filled_ - first_), MSG_NOSIGNAL);
            if (sent < 0) return check(errno == EAGAIN, "sendmmsg"), false;
            first_ += static_cast<size_t>(sent);
        }
        first_ = filled_ = 0;
        return true;
    }

    char slots_[kBatch][kSlot];
    size_t sizes_[kBatch];
    size_t first_ = 0, filled_ = 0;
    std::vector<char> rooms_ = std::vector<char>(kBatch * kRoom);
};

} // namespace

std::unique_ptr<Link> make_raw_pair(const Ends &ends) { return std::make_unique<RawLink>(ends, true); }
std::unique_ptr<Link> make_raw_open(const Ends &ends) { return std::make_unique<RawLink>(ends, false); }
std::unique_ptr<Link> make_mmsg(const Ends &ends) { return std::make_unique<MmsgLink>(ends, true); }
std::unique_ptr<Link> make_mmsg_open(const Ends &ends) { return std::make_unique<MmsgLink>(ends, false); }

} // namespace bench
