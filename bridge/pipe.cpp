#include "pipe.h"

#include <cerrno>
#include <cstddef>
#include <new>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/datagram.h"
#include "common/log.h"
#include "common/service.h"

namespace tavbridge {
namespace {

// Bytes; a longer datagram is not one of the library's.
constexpr size_t kBuffer = tavipc::kHeaderSize + tavipc::kFragmentPayload + 4096;
constexpr int kFirstPassed = 3; // sd_listen_fds(3)

int bound_socket(const std::string &path) {
    cl_sockaddr_t address;
    errno = ENAMETOOLONG;
    if (cl_sockaddr_un_init(&address, path.c_str()) != 0) return -1;
    // The event library makes the directories and replaces a stale file, but not one that is in use.
    const cl_dunix_t place = cl_dunix_create(&address, nullptr, nullptr);
    if (!place) return -1;
    cl_dunix_close(place, nullptr, nullptr);
    tavipc::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM, 0));
    if (fd.get() < 0 || ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address.addr), address.len) != 0)
        return -1;
    return fd.release();
}

} // namespace

Pipe::~Pipe() {
    if (io_) cl_io_stop(io_);
    if (!own_path_.empty()) ::unlink(own_path_.c_str());
}

bool Pipe::open(const std::string &path) {
    int fd = tavipc::passed_socket(path);
    if (fd < 0) {
        fd = bound_socket(path);
        if (fd >= 0) own_path_ = path;
    }
    if (fd < 0) return false;
    socket_ = tavipc::UniqueFd(fd);
    buffer_.resize(kBuffer);
    const int begin = 0;
    return fcntl(fd, F_SETFD, FD_CLOEXEC) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_PEEK_OFF, &begin, sizeof begin) == 0 && watch();
}

bool Pipe::watch() {
    set_ = tavipc::UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    if (set_.get() < 0 || epoll_ctl(set_.get(), EPOLL_CTL_ADD, socket_.get(), &event) != 0) return false;
    const auto ready = [](cl_io_t, int, void *argument) {
        auto *self = static_cast<Pipe *>(argument);
        epoll_event happened;
        epoll_wait(self->set_.get(), &happened, 1, 0); // until the next datagram
        self->look();
    };
    io_ = cl_io_start(set_.get(), CL_IO_READ, ready, this);
    return io_ != 0;
}

void Pipe::read(bool reading) {
    const bool before = std::exchange(reading_, reading);
    if (reading && !before && !looking_) look();
}

// What is done is taken out at the end, so the socket's length limits the loop.
void Pipe::look() try {
    looking_ = true;
    around_(true);
    while (reading_) {
        seen_.push_back({0, false}); // first: memory may be short
        sockaddr_un from{};
        iovec bytes{buffer_.data(), buffer_.size()};
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        const ssize_t got = recvmsg(socket_.get(), &message, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (got < 0) {
            seen_.pop_back();
            break;
        }
        const auto size = seen_.back().size = static_cast<size_t>(got);
        if (size > buffer_.size()) { // the next look would find the rest of it
            int offset = 0;
            for (const Seen &seen : seen_) offset += static_cast<int>(seen.size);
            setsockopt(socket_.get(), SOL_SOCKET, SO_PEEK_OFF, &offset, sizeof offset);
        }
        handler_(first_ + seen_.size() - 1, {buffer_.data(), size > buffer_.size() ? 0 : size},
                 tavipc::path_of(from, message.msg_namelen));
    }
    looking_ = false;
    around_(false);
    take_done();
} catch (const std::bad_alloc &) {
    around_(false);
    looking_ = reading_ = false; // the bridge begins again soon
}

void Pipe::done(uint64_t ticket) {
    if (ticket >= first_ && ticket - first_ < seen_.size()) seen_[ticket - first_].done = true;
    if (!looking_) take_done();
}

void Pipe::take_done() {
    while (!seen_.empty() && seen_.front().done) {
        char byte;
        const ssize_t size = recv(socket_.get(), &byte, sizeof byte, MSG_TRUNC | MSG_DONTWAIT);
        // An empty datagram that an earlier bridge had looked at is skipped by a look, but not here.
        if (size == 0 && seen_.front().size != 0) continue;
        if (size != static_cast<ssize_t>(seen_.front().size))
            TAV_LOG_LIMITED(1, "tav_bridge", "another process reads from the bridge's socket");
        seen_.pop_front();
        ++first_;
    }
}

} // namespace tavbridge
