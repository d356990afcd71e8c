// A listening socket in each directory, and a connection from each endpoint there. Modules never wait for
// this process, so what has come is taken out of the kernel before any of it is shown.
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "common/facts.h"
#include "module/module.h"
#include "monitor/monitor.h"

namespace tavctl {
namespace {

constexpr size_t kMostListeners = 16;     // directories; a machine rarely has more than a few
constexpr size_t kMostConnections = 4096; // any process that may write to the socket can connect
constexpr size_t kMostCopies = 1024;      // taken at once: 130 MB at most
constexpr size_t kCopySize = 65'535 + sizeof(tav_ipc_hdr_st) + TAV_IPC_FRAGMENT_PAYLOAD; // bytes, at most
constexpr int kWait_ms = 100; // Ctrl-C and --count are noticed within it

// Paths of this process's sockets, for its signal handler.
char files[kMostListeners][tavipc::kLongestSocketPath + 1];

void remove_files() {
    for (const auto &file : files)
        if (file[0] != '\0') unlink(file);
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, tavipc::kLongestSocketPath);
    return address;
}

// Binds the socket to the first name of a monitor that is free, or that a killed monitor has left. Returns
// its path; empty with errno set when there is none.
std::string bind_in(const SocketDirectory &directory, int fd) {
    for (int number = 0; number < TAV_IPC_MONITOR_MAX; ++number) {
        const std::string name = TAV_IPC_MONITOR_NAME + std::to_string(number);
        const auto file = std::ranges::find(directory.sockets, name, &SocketFile::name);
        if (file != directory.sockets.end() && file->state == SocketState::kStale)
            remove_stale(directory.path, *file);
        std::string path = directory.path + "/" + name;
        const sockaddr_un address = address_of(path);
        errno = ENAMETOOLONG;
        if (path.size() > tavipc::kLongestSocketPath) break;
        if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return path;
        if (errno != EADDRINUSE) break;
    }
    return {};
}

} // namespace

MonitorSockets::MonitorSockets() : poll_(epoll_create1(EPOLL_CLOEXEC)), buffer_(kCopySize, '\0') {
    catch_interrupts(remove_files);
    rlimit limit{}; // a connection for each endpoint
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    poll_for(STDOUT_FILENO, kMostListeners); // its end; not possible for a file, which has none
}

MonitorSockets::~MonitorSockets() {
    for (size_t i = 0; i < listeners_.size(); ++i) {
        files[i][0] = '\0';
        unlink(listeners_[i].path.c_str());
    }
}

void MonitorSockets::open(const SocketDirectory &directory) {
    if (listeners_.size() == kMostListeners)
        throw Problem("there are too many socket directories to monitor");
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    // The file gets its mode from bind: after it, the owner of the directory could put a link there. Modules
    // of other users connect to root's monitor.
    const mode_t before = umask(geteuid() == 0 ? 0111 : 0177);
    const std::string path = bind_in(directory, fd.get());
    umask(before);
    if (path.empty() && errno == EADDRINUSE)
        throw Problem("modules in " + directory.path + " serve no further monitor",
                      "end one of the " + std::to_string(TAV_IPC_MONITOR_MAX) + " that are running");
    if (path.empty())
        throw system_problem("cannot monitor " + directory.path,
                             "run tavctl as the user of the modules, or as root");
    char(&file)[sizeof files[0]] = files[listeners_.size()];
    file[path.copy(file, path.size())] = '\0';
    // Modules watch for changed attributes (IN_ATTRIB): new times do no harm to any other file.
    if (listen(fd.get(), SOMAXCONN) != 0 ||
        utimensat(AT_FDCWD, path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) != 0)
        throw unlink(path.c_str()), system_problem("cannot monitor " + directory.path);
    poll_for(fd.get(), listeners_.size());
    listeners_.push_back({directory.path, path, std::move(fd)});
}

void MonitorSockets::poll_for(int fd, uint64_t number) const {
    epoll_event event{number == kMostListeners ? 0u : EPOLLIN, {}};
    event.data.u64 = number;
    epoll_ctl(poll_.get(), EPOLL_CTL_ADD, fd, &event);
}

void MonitorSockets::accept_at(unsigned listener) {
    for (;;) {
        UniqueFd fd(accept4(listeners_[listener].fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) return;
        ucred peer{};
        socklen_t size = sizeof peer;
        getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
        if (connections_.size() >= kMostConnections) continue;
        poll_for(fd.get(), next_);
        connections_.emplace(next_++, Connection{std::move(fd), listener, peer.pid, 0});
    }
}

void MonitorSockets::read(uint64_t number, std::deque<Copy> &copies) {
    const auto found = connections_.find(number);
    if (found == connections_.end()) return;
    Connection &from = found->second;
    while (copies.size() < kMostCopies) {
        const ssize_t size = recv(from.fd.get(), buffer_.data(), buffer_.size(), 0);
        if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (size <= 0) return void(connections_.erase(found));
        Copy copy;
        copy.bytes.assign(buffer_, 0, static_cast<size_t>(size));
        copy.connection = number;
        copy.process = from.process;
        copy.listener = from.listener;
        if (!copy.parse()) {
            ++ignored_;
            continue;
        }
        listeners_[from.listener].missed += copy.record.missed - std::min(from.missed, copy.record.missed);
        from.missed = std::max(from.missed, copy.record.missed);
        copies.push_back(std::move(copy));
    }
}

std::deque<Copy> MonitorSockets::take() {
    std::deque<Copy> copies;
    epoll_event events[64];
    const int ready = epoll_wait(poll_.get(), events, std::size(events), kWait_ms);
    for (int i = 0; i < ready; ++i) {
        const uint64_t number = events[i].data.u64;
        if (number == kMostListeners)
            std::cout.setstate(std::ios::badbit); // its reader has gone
        else if (number < kMostListeners)
            accept_at(static_cast<unsigned>(number));
        else
            read(number, copies);
    }
    std::ranges::stable_sort(copies, {}, [](const Copy &copy) { return copy.record.time_ns; });
    return copies;
}

bool MonitorSockets::command(const Copy &copy, tav_ipc_monitor_command command, uint32_t value) const {
    const tav_ipc_monitor_command_st record{TAV_IPC_MONITOR_MAGIC, TAV_IPC_MONITOR_VERSION,
                                            static_cast<uint16_t>(command), value, 0};
    const auto to = connections_.find(copy.connection);
    return to != connections_.end() &&
           send(to->second.fd.get(), &record, sizeof record, MSG_NOSIGNAL) == sizeof record;
}

bool MonitorSockets::command_was_read(const Copy &copy) const {
    const auto to = connections_.find(copy.connection);
    int unread = 0;
    return to != connections_.end() && ioctl(to->second.fd.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
}

uint64_t MonitorSockets::missed() const {
    uint64_t sum = 0;
    for (const Listener &listener : listeners_) sum += listener.missed;
    return sum;
}

} // namespace tavctl
