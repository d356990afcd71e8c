#include "ipc/monitor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

#include "common/keep_errno.h"
#include "common/log.h"
#include "ipc/directory_watch.h"
#include "ipc/socket_directory.h"
#include "ipc/unshared_fd.h"
#include "tavcl_loop.h"

#pragma weak cl_io_start // another event library may lack them
#pragma weak cl_io_stop

namespace tavipc {
namespace {

// Bytes of send buffer: about 1,400 small copies that the monitor has not read. The kernel grants twice this,
// or its limit (net.core.wmem_max).
constexpr int kSendBuffer = 512 << 10;
constexpr int kHighestLogLevel = 4;                           // the levels of tavbase.h
constexpr size_t kNameSize = sizeof TAV_IPC_MONITOR_NAME + 1; // with the digit and NUL

bool is_trusted(uid_t user) { return user == 0 || user == ::geteuid(); }

// Whether the file is a socket of a user who may be a monitor.
bool is_trusted_socket(const char *path) {
    struct stat found {};
    return ::lstat(path, &found) == 0 && S_ISSOCK(found.st_mode) && is_trusted(found.st_uid);
}

// A listening socket was made by a process of this user.
bool is_trusted_listener(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && is_trusted(peer.uid);
}

void prepare(int fd) {
    constexpr int kOn = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &kOn, sizeof kOn); // a datagram socket gets a name by it, too
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer, sizeof kSendBuffer) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
}

// Empty when there is no monitor, or it refuses.
UniqueFd connect_to(const cl_sockaddr_t &address, int type) {
    UniqueFd fd(::socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) return fd;
    prepare(fd.get());
    const bool connected =
        ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address.addr), address.len) == 0;
    const bool accepted = connected && (type != SOCK_SEQPACKET || is_trusted_listener(fd.get()));
    if (!accepted) fd.reset();
    return fd;
}

uint64_t wall_clock_ns() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// The connection to one monitor.
class Link {
  public:
    explicit Link() = default;
    ~Link() { close(); }
    Link(const Link &) = delete;

    bool is_open() const { return bool(fd_); }
    void open(const char *path, const tav_ipc_monitor_record_st &hello) noexcept;
    void close() noexcept;
    void send(tav_ipc_monitor_record_st record, const MonitoredDatagram &datagram) noexcept;

  private:
    static void on_ready(cl_io_t, int, void *self) noexcept;
    bool receive(tav_ipc_monitor_command_st &command) noexcept;

    UnsharedFd fd_;
    cl_io_t io_ = 0;
    bool counted_ = false;
    bool connection_ = false; // else a datagram socket
    uint32_t capture_ = 0;    // bytes of payload to copy
    uint64_t missed_ = 0;
};

void Link::open(const char *path, const tav_ipc_monitor_record_st &hello) noexcept {
    close();
    cl_sockaddr_t address;
    if (cl_sockaddr_un_init(&address, path) != 0) return;
    connection_ = fd_.take_from([&] { return connect_to(address, SOCK_SEQPACKET); });
    if (!connection_ && !fd_.take_from([&] { return connect_to(address, SOCK_DGRAM); })) return;
    io_ = cl_io_start(fd_.get(), CL_IO_READ, on_ready, this);
    if (!io_) return fd_.reset();
    capture_ = 0;
    missed_ = 0;
    counted_ = true;
    monitor_links.fetch_add(1, std::memory_order_relaxed);
    send(hello, {});
}

void Link::close() noexcept {
    if (io_) cl_io_stop(std::exchange(io_, 0));
    fd_.reset();
    if (std::exchange(counted_, false)) monitor_links.fetch_sub(1, std::memory_order_relaxed);
}

void Link::send(tav_ipc_monitor_record_st record, const MonitoredDatagram &datagram) noexcept {
    record.missed = missed_;
    record.captured = std::min(capture_, datagram.payload_size);
    iovec parts[] = {{&record, sizeof record},
                     {const_cast<void *>(datagram.header), datagram.header_size},
                     {const_cast<void *>(datagram.payload), record.captured}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    if (::sendmsg(fd_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return;
    switch (errno) {
    case EAGAIN:
    case EINTR:
    case ENOBUFS:
    case ENOMEM:
    case EMSGSIZE:
        ++missed_;
        break;
    default: // the monitor has gone
        close();
    }
}

// Reads one command. False when there is none, or it is not allowed.
bool Link::receive(tav_ipc_monitor_command_st &command) noexcept {
    iovec part{&command, sizeof command};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))]; // no space for descriptors
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t size = ::recvmsg(fd_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const bool ended = size < 0 ? errno != EAGAIN && errno != EINTR : size == 0 && connection_;
    if (ended) close();
    if (size != sizeof command) return false;
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    ucred sender{0, ~uid_t{0}, 0};
    if (header && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_CREDENTIALS)
        std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
    return is_trusted(sender.uid) && command.magic == TAV_IPC_MONITOR_MAGIC &&
           command.version == TAV_IPC_MONITOR_VERSION;
}

// One command a turn of the loop: the line may destroy the endpoint.
void Link::on_ready(cl_io_t, int, void *self) noexcept {
    const KeepErrno keep;
    auto &link = *static_cast<Link *>(self);
    tav_ipc_monitor_command_st command{};
    if (!link.receive(command)) return;
    if (command.command == TAV_IPC_MONITOR_CAPTURE) link.capture_ = command.value;
    if (command.command != TAV_IPC_MONITOR_LOG_LEVEL || command.value > kHighestLogLevel) return;
    error_output_set_level(static_cast<int>(command.value));
    TAV_LOG(3, "tav_ipc", "a monitor has set the log level to %u", command.value);
}

} // namespace

class MonitorTap {
  public:
    explicit MonitorTap(const tav_ipc_st *ipc) noexcept : ipc_(ipc) {
        listener_.start(ipc->location);
        look(nullptr);
    }
    void copy(const MonitoredDatagram &datagram) noexcept;

  private:
    static void on_change(void *self, const char *name, bool) noexcept {
        static_cast<MonitorTap *>(self)->look(name);
    }
    void look(const char *changed) noexcept;
    tav_ipc_monitor_record_st record(tav_ipc_monitor_event event) const noexcept;

    const tav_ipc_st *ipc_;
    Link links_[TAV_IPC_MONITOR_MAX];
    DirectoryListener listener_{DirectoryListener::Interest::kModes, on_change, this};
};

// Connects again to the monitor of that name, or (null) to all that the endpoint has no link to.
void MonitorTap::look(const char *changed) noexcept {
    constexpr size_t kLength = sizeof TAV_IPC_MONITOR_NAME - 1;
    if (changed && std::strncmp(changed, TAV_IPC_MONITOR_NAME, kLength) != 0) return;
    char name[kNameSize] = TAV_IPC_MONITOR_NAME;
    for (int number = 0; number < TAV_IPC_MONITOR_MAX; ++number) {
        name[kLength] = static_cast<char>('0' + number);
        if (changed ? std::strcmp(changed, name) != 0 : links_[number].is_open()) continue;
        char path[sizeof(sockaddr_un)];
        if (!socket_path(path, sizeof path, ipc_->location, name) || !is_trusted_socket(path)) continue;
        links_[number].open(path, record(TAV_IPC_MONITOR_HELLO));
    }
}

tav_ipc_monitor_record_st MonitorTap::record(tav_ipc_monitor_event event) const noexcept {
    tav_ipc_monitor_record_st record{};
    record.magic = TAV_IPC_MONITOR_MAGIC;
    record.version = TAV_IPC_MONITOR_VERSION;
    record.record_size = sizeof record;
    record.time_ns = wall_clock_ns();
    record.pid = static_cast<uint32_t>(::getpid());
    record.event = static_cast<uint16_t>(event);
    static_assert(sizeof record.endpoint > sizeof ipc_->my_addr.name);
    std::memcpy(record.endpoint, ipc_->my_addr.name, sizeof ipc_->my_addr.name);
    record.location = ipc_->location;
    return record;
}

void MonitorTap::copy(const MonitoredDatagram &datagram) noexcept {
    tav_ipc_monitor_record_st made = record(datagram.event);
    made.reason = static_cast<uint16_t>(datagram.reason);
    made.tries = datagram.tries;
    for (Link &link : links_)
        if (link.is_open()) link.send(made, datagram);
}

void open_monitor_tap(tav_ipc_st *ipc) noexcept {
    const KeepErrno keep;
    if (cl_io_start && cl_io_stop) ipc->monitor_tap = new (std::nothrow) MonitorTap(ipc);
}

void close_monitor_tap(tav_ipc_st *ipc) noexcept {
    const KeepErrno keep;
    delete std::exchange(ipc->monitor_tap, nullptr);
}

void copy_to_monitors(const tav_ipc_st *ipc, const MonitoredDatagram &datagram) noexcept {
    const KeepErrno keep;
    if (ipc->monitor_tap) ipc->monitor_tap->copy(datagram);
}

} // namespace tavipc
