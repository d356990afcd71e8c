// A socket that local modules write to, and the datagrams in it that the engine has not confirmed.
//
// A datagram is looked at with MSG_PEEK and taken out of the socket only when it is done: the engine has
// stored it, or nothing has to store it. Until then it stays in the kernel. If the service manager holds the
// socket, too (a socket unit), it survives a bridge that is killed, and the next one reads it again; the
// engine then recognises by their ids the datagrams that it has. What is to be stored goes out in the order
// in which it came, and all of it again on a new connection.
//
// SO_PEEK_OFF makes each peek begin behind the one before. The socket stays readable while it has such
// datagrams, so it is watched edge-triggered, in an epoll set of its own.
//
// The kernel notes when each datagram was put into the socket (at the first look, if SO_TIMESTAMPNS was not
// set yet). All later looks, also those of another bridge, find the same time: it tells a datagram that is
// looked at again from one that a module has sent twice.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <functional>
#include <utility>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/service.h"
#include "engine.h"

namespace tavbridge {

class Pipe {
  public:
    // Gets each datagram once, with its time: bytes that differ for each datagram of the socket. Returns the
    // message with which the engine shall store it, or null if it is done. The engine answers to
    // reply_subject(ticket).
    using Take = std::function<Message(uint64_t ticket, std::string_view datagram, std::string_view time)>;

    // taken() is called after the datagrams of one turn of the loop, and may call read().
    Pipe(Engine &engine, Counters &counters, Take take, std::function<void()> taken)
        : engine_(engine), counters_(counters), take_(std::move(take)), taken_(std::move(taken)) {}
    ~Pipe() {
        if (io_) cl_io_stop(io_);
        unlink();
    }

    // Nothing more can come, unless the service manager holds the socket.
    void unlink() {
        // Once only: then the path may be the next bridge's.
        ::unlink(std::exchange(own_path_, {}).c_str());
    }

    // Takes the socket with this path that the service manager has passed, or makes one. False with errno set
    // on failure.
    bool open(const std::string &path) {
        socket_ = tavipc::UniqueFd(tavipc::passed_socket(path));
        if (!socket_) {
            socket_ = tavipc::UniqueFd(bound_socket(path));
            if (!socket_) return false;
            own_path_ = path;
        }
        buffer_.reset(new char[kAtOnce * kLongest]); // not initialised: most of it is never used
        for (size_t i = 0; i < kAtOnce; ++i) {
            places_[i] = {&buffer_[i * kLongest], kLongest};
            headers_[i].msg_hdr.msg_control = times_[i].data();
            headers_[i].msg_hdr.msg_iov = &places_[i];
            headers_[i].msg_hdr.msg_iovlen = 1;
        }
        const int begin = 0, on = 1;
        set_ = tavipc::UniqueFd(epoll_create1(EPOLL_CLOEXEC));
        if (!set_ || fcntl(socket_.get(), F_SETFD, FD_CLOEXEC) != 0 ||
            setsockopt(socket_.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0 ||
            setsockopt(socket_.get(), SOL_SOCKET, SO_PEEK_OFF, &begin, sizeof begin) != 0)
            return false;
        arm(EPOLL_CTL_ADD);
        const auto ready = [](cl_io_t, int, void *argument) {
            auto *self = static_cast<Pipe *>(argument);
            epoll_event happened;
            epoll_wait(self->set_.get(), &happened, 1, 0); // quiet until the next datagram
            self->look();
        };
        return (io_ = cl_io_start(set_.get(), CL_IO_READ, ready, this)) != 0;
    }

    // While it does not read, the datagrams stay in the socket, and their senders wait.
    void read(bool reading) {
        if (reading && !reading_) arm(EPOLL_CTL_MOD);
        if (!reading && reading_) counters_.add(kPauses);
        reading_ = reading;
    }
    bool reading() const { return reading_; }

    // The engine's answer: stored, now or before; or not, which is tried again.
    void answered(uint64_t ticket, bool stored, bool before) {
        if (ticket < first_ || ticket - first_ >= seen_.size()) return;
        Seen &seen = seen_[ticket - first_];
        if (!seen.message) return;
        seen.due_ms = cl_event_loop_now() + kRefused_ms;
        if (!stored) return;
        counters_.add(kStored);
        if (before) counters_.add(kDuplicates);
        end(seen);
    }

    // Gives the engine again what it refused or did not answer in time; all that it has not confirmed.
    void resend(bool all) {
        const uint64_t now_ms = cl_event_loop_now();
        for (Seen &seen : seen_) {
            if (!seen.message || (!all && seen.due_ms > now_ms)) continue;
            if (send(seen)) counters_.add(kRepeated);
        }
    }

    // Takes out what is done, up to the first datagram that is not.
    void take_done() {
        for (;;) {
            unsigned count = 0;
            while (count < std::min(kAtOnce, seen_.size()) && !seen_[count].message) ++count;
            if (count == 0) return;
            std::array<mmsghdr, kAtOnce> taken{}; // without a buffer: only the lengths are of interest
            const int got = recvmmsg(socket_.get(), taken.data(), count, MSG_TRUNC | MSG_DONTWAIT, nullptr);
            for (int i = 0; i < std::max(got, 1); ++i) {
                const size_t size = taken[static_cast<size_t>(i)].msg_len, wanted = seen_.front().size;
                // An empty datagram that an earlier bridge had looked at is skipped by a look, but not here.
                if (got > 0 && size == 0 && wanted != 0) continue;
                if (got <= 0 || size != wanted)
                    TAV_LOG_LIMITED(1, "tav_bridge", "another process reads from the bridge's socket");
                seen_.pop_front();
                ++first_;
            }
        }
    }

    // Whether the socket has no datagram that was not looked at.
    bool all_seen() const { return recv(socket_.get(), nullptr, 0, MSG_PEEK | MSG_DONTWAIT) < 0; }
    // Of what the engine has not confirmed.
    uint64_t bytes() const { return bytes_; }
    uint64_t waiting() const { return waiting_; }

  private:
    static constexpr size_t kAtOnce = 64;                                              // datagrams
    static constexpr size_t kLongest = tavipc::kHeaderSize + tavipc::kFragmentPayload; // bytes of a good one
    static constexpr uint64_t kAnswer_ms = 5000;  // a cluster elects a new leader in less
    static constexpr uint64_t kRefused_ms = 1000; // pause after a refusal: a full stream empties slowly
    static constexpr uint64_t kOverhead = 1000;   // bytes of a message beside its datagram, about

    using Time = std::array<char, CMSG_SPACE(2 * sizeof(uint64_t))>; // a control message with a timespec
    struct Seen {
        size_t size = 0;
        Message message = nullptr; // to store; null: the datagram is done
        uint64_t due_ms = 0;       // when it is given to the engine again
    };

    static int bound_socket(const std::string &path) {
        cl_sockaddr_t address;
        errno = ENAMETOOLONG;
        if (cl_sockaddr_un_init(&address, path.c_str()) != 0) return -1;
        // The event library makes the directories and replaces a stale file, but not one that is in use.
        const cl_dunix_t place = cl_dunix_create(&address, nullptr, nullptr);
        if (!place) return -1;
        cl_dunix_close(place, nullptr, nullptr);
        tavipc::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM, 0));
        const auto *name = reinterpret_cast<const sockaddr *>(&address.addr);
        return fd && ::bind(fd.get(), name, address.len) == 0 ? fd.release() : -1;
    }

    // The set reports the socket once, now or when a datagram comes.
    void arm(int operation) {
        epoll_event event{.events = EPOLLIN | EPOLLET, .data = {}};
        epoll_ctl(set_.get(), operation, socket_.get(), &event);
    }

    void look() try {
        if (!reading_) return;
        const size_t known = seen_.size();
        seen_.resize(known + kAtOnce); // before the peek: memory may be short
        for (mmsghdr &header : headers_) header.msg_hdr.msg_controllen = sizeof(Time);
        const int got =
            recvmmsg(socket_.get(), headers_.data(), kAtOnce, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT, nullptr);
        size_t count = 0;
        bool whole = true;
        for (; whole && count < static_cast<size_t>(std::max(got, 0)); ++count)
            whole = (seen_[known + count].size = headers_[count].msg_len) <= kLongest;
        seen_.resize(known + count);
        if (!whole) { // the next peek would find the rest of it
            int offset = 0;
            for (const Seen &seen : seen_) offset += static_cast<int>(seen.size);
            setsockopt(socket_.get(), SOL_SOCKET, SO_PEEK_OFF, &offset, sizeof offset);
        }
        if (count == kAtOnce || !whole) arm(EPOLL_CTL_MOD); // the rest on the next turn
        for (size_t i = 0; i < count; ++i) {
            Seen &seen = seen_[known + i];
            const std::string_view datagram(&buffer_[i * kLongest], std::min(seen.size, kLongest));
            const std::string_view time(times_[i].data(), headers_[i].msg_hdr.msg_controllen);
            seen.message = take_(first_ + known + i, datagram, time);
            if (!seen.message) continue;
            bytes_ += content(seen.message.get()).size() + kOverhead;
            ++waiting_;
            if (send(seen)) counters_.add(kSentDurable);
        }
        taken_();
        take_done();
    } catch (const std::bad_alloc &) {
        reading_ = false; // the bridge begins again soon
    }

    // False if the datagram is dropped.
    bool send(Seen &seen) {
        seen.due_ms = cl_event_loop_now() + kAnswer_ms;
        if (engine_.publish(seen.message.get()) != NATS_MAX_PAYLOAD) return true;
        counters_.drop(kTooLarge, content(seen.message.get()), "from a module");
        return end(seen), false;
    }

    void end(Seen &seen) {
        bytes_ -= content(seen.message.get()).size() + kOverhead;
        --waiting_;
        seen.message.reset();
    }

    Engine &engine_;
    Counters &counters_;
    const Take take_;
    const std::function<void()> taken_;
    std::string own_path_; // of a socket that it made
    tavipc::UniqueFd socket_, set_;
    cl_io_t io_ = 0;
    bool reading_ = false;
    std::unique_ptr<char[]> buffer_; // for kAtOnce datagrams, each with its place, time and message header
    std::array<iovec, kAtOnce> places_;
    std::array<Time, kAtOnce> times_;
    std::array<mmsghdr, kAtOnce> headers_{};
    std::deque<Seen> seen_; // what was looked at and is still in the socket
    uint64_t first_ = 1;    // ticket of the first
    uint64_t bytes_ = 0, waiting_ = 0;
};

} // namespace tavbridge
