#include <array>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "common/facts.h"
#include "module/module.h"
#include "monitor/monitor.h"
#include "tavipc/tav_ipc_stats.h"

namespace tavctl {

const char *const kKinds[] = {"answer", "ack", "file", "probe", "request", "message"};
const char *const kOutcomeNames[] = {"hello",    "sent",    "waiting",   "dropped",
                                     "received", "refused", "incomplete"};

namespace {

// In the order in which a receiver looks at them; a datagram without any is a message.
constexpr unsigned kKindFlags[] = {IPC_FLAG_RESPONSE, IPC_FLAG_ACK,     IPC_FLAG_FILE,
                                   IPC_FLAG_PROBE,    IPC_FLAG_REQUEST, 0};

#define REASON(name, text, kind, meaning) text,
constexpr const char *kReasons[] = {TAV_IPC_STATS_VALUES(REASON)};
#undef REASON

constexpr size_t kMostMonitors = 4;                                  // that a module serves
constexpr size_t kMostSockets = 16;                                  // of this process
constexpr size_t kCopySize = 65'535 + 60 + TAV_IPC_FRAGMENT_PAYLOAD; // bytes, with the longest record
constexpr char kPrefix[] = "ipc", kSuffix[] = ".monitor";            // around the process id

char files[kMostSockets]
          [tavipc::kLongestSocketPath + 1]; // that this process has bound, for its signal handler

void remove_files() {
    for (const auto &file : files)
        if (file[0] != '\0') unlink(file);
}

bool is_monitor(std::string_view name) {
    if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) return false;
    name.remove_prefix(strlen(kPrefix));
    name.remove_suffix(strlen(kSuffix));
    return number_of(name) > 0;
}

} // namespace

const char *kind_of(const tav_ipc_hdr_st &header) {
    size_t kind = 0;
    while (kKindFlags[kind] != 0 && (header.flags & kKindFlags[kind]) == 0) ++kind;
    return kKinds[kind];
}

std::string reason_text(unsigned reason) {
    if (reason == 0 || reason >= std::size(kReasons)) return reason == 0 ? "" : std::to_string(reason);
    const std::string text = kReasons[reason];
    return text.substr(text.find('_') + 1); // without "dropped_" or "bad_", which the outcome says
}

std::string outcome_text(unsigned outcome, unsigned reason, unsigned tries) {
    std::string text = reason_text(reason);
    std::ranges::replace(text, '_', ' ');
    if (outcome == TAV_IPC_MONITOR_WAITING) text = "try " + std::to_string(tries);
    return kOutcomeNames[outcome] + (text.empty() ? text : ": " + text);
}

bool Copy::parse() {
    if (bytes.size() < sizeof record) return false;
    std::memcpy(&record, bytes.data(), sizeof record);
    if (record.magic != TAV_IPC_MONITOR_MAGIC || record.event > TAV_IPC_MONITOR_REFUSED ||
        record.record_size < sizeof record || record.record_size > bytes.size())
        return false;
    if (record.event == TAV_IPC_MONITOR_HELLO) record.captured = 0;
    const size_t rest = bytes.size() - record.record_size;
    if (record.captured > rest) return false;
    const size_t head = rest - record.captured;
    std::memcpy(&header, &bytes[record.record_size], std::min(head, sizeof header));
    return head <= sizeof header && (record.captured == 0 || head == sizeof header);
}

MonitorSocket::MonitorSocket(const SocketDirectory &directory)
    : path_(directory.path + "/" + kPrefix + std::to_string(getpid()) + kSuffix), buffer_(kCopySize, '\0'),
      fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    size_t others = 0;
    for (const SocketFile &file : directory.sockets) {
        if (!is_monitor(file.name)) continue;
        if (file.state == SocketState::kStale) remove_stale(directory.path, file);
        others += file.state == SocketState::kLive && (file.owner == 0 || file.owner == geteuid());
    }
    if (others >= kMostMonitors)
        throw Problem("no module in " + directory.path +
                          " serves another monitor: " + std::to_string(others) + " are running",
                      "end one of them: tavctl list shows their processes");
    const auto file = std::ranges::find(files, '\0', [](const auto &name) { return name[0]; });
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() > tavipc::kLongestSocketPath || file == std::end(files))
        throw Problem("cannot watch " + directory.path,
                      "its path is too long, or there are too many of them");
    path_.copy(address.sun_path, path_.size());
    const int on = 1; // SO_RCVBUF has no effect here: the kernel limits the number of datagrams instead
    setsockopt(fd_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    // Modules notice the file at once, so it has its mode from the beginning. Those of other users send to
    // root's monitor.
    const mode_t before = umask(geteuid() == 0 ? 0111 : 0177);
    const int result = bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    umask(before);
    if (result != 0)
        throw system_problem("cannot watch " + directory.path,
                             "run tavctl as the user of the modules, or as root");
    path_.copy(*file, path_.size());
}

MonitorSocket::~MonitorSocket() {
    for (auto &file : files)
        if (path_ == file) file[0] = '\0', unlink(path_.c_str());
}

bool MonitorSocket::receive(Copy &copy) {
    sockaddr_un from{};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    iovec part{buffer_.data(), buffer_.size()};
    msghdr message{&from, sizeof from, &part, 1, control, sizeof control, 0};
    const ssize_t size = recvmsg(fd_.get(), &message, MSG_DONTWAIT);
    if (size < 0) return false;
    copy.bytes.assign(buffer_, 0, static_cast<size_t>(size));
    copy.sender.assign(reinterpret_cast<const char *>(&from), message.msg_namelen);
    if (const cmsghdr *header = CMSG_FIRSTHDR(&message); header && header->cmsg_type == SCM_CREDENTIALS) {
        ucred sender;
        std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
        copy.process = sender.pid;
    }
    return true;
}

bool MonitorSocket::command(const Copy &copy, tav_ipc_monitor_command command, uint32_t value) const {
    const tav_ipc_monitor_command_st record{TAV_IPC_MONITOR_MAGIC, TAV_IPC_MONITOR_VERSION,
                                            static_cast<uint16_t>(command), value, 0};
    return sendto(fd_.get(), &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr *>(copy.sender.data()),
                  static_cast<socklen_t>(copy.sender.size())) == sizeof record;
}

bool MonitorSocket::command_was_read() const {
    int unread = 0;
    return ioctl(fd_.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
}

void catch_monitor_interrupts() { catch_interrupts(remove_files); }

// The end of standard output ends the wait, too.
void wait_for_copies(const std::deque<MonitorSocket> &sockets) {
    std::vector<pollfd> watched{{STDOUT_FILENO, 0, 0}};
    for (const MonitorSocket &socket : sockets) watched.push_back({socket.fd(), POLLIN, 0});
    if (poll(watched.data(), watched.size(), 100) > 0 && (watched[0].revents & (POLLERR | POLLHUP)))
        std::cout.setstate(std::ios::badbit);
}

} // namespace tavctl
