// What the machine gives to modules: queues, buffers, descriptors, room for files, the clock.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include "doctor.h"
#include "files.h"
#include "problem.h"
#include "processes.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

constexpr long kFewDatagrams = 64;
constexpr int kSendBuffer = 4 << 20; // what libtavcl_ev asks for; the system doubles it
constexpr rlim_t kFewDescriptors = 1024;
constexpr double kLittleRoom = 100e6, kNoRoom = 1e6; // bytes
constexpr time_t kKeptFile_s = 600; // a living receiver removes a file 6 minutes after its last data

std::optional<long> setting(const char *path) {
    try {
        std::string text = read_file(path, 64);
        while (text.ends_with('\n')) text.pop_back();
        if (const long value = number_of(text); value >= 0) return value;
    } catch (const Problem &) { // not on this system
    }
    return {};
}

// For now, and for the next start.
std::string sysctl_remedy(const std::string &assignment) {
    return as_root("sysctl -w " + assignment) + "\necho " + assignment + " | " +
           as_root("tee -a /etc/sysctl.d/60-tavipc.conf");
}

void check_queue(Findings &findings) {
    const auto length = setting("/proc/sys/net/unix/max_dgram_qlen");
    if (!length) return findings.skip("datagram queue", "net.unix.max_dgram_qlen cannot be read");
    const std::string seen = "net.unix.max_dgram_qlen is " + std::to_string(*length);
    if (*length >= kFewDatagrams) return findings.ok("datagram queue", seen);
    findings.warn(
        "datagram queue",
        seen + ": so few datagrams wait for a busy receiver; more wait in their senders, which takes time",
        sysctl_remedy("net.unix.max_dgram_qlen=512") +
            "\n# then start the modules again: a socket keeps what it was made with");
}

void check_buffers(Findings &findings) {
    const Descriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int size = kSendBuffer;
    if (setsockopt(probe.get(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0)
        setsockopt(probe.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    socklen_t length = sizeof size;
    getsockopt(probe.get(), SOL_SOCKET, SO_SNDBUF, &size, &length);
    size /= 2; // the kernel tells twice what was asked for
    const auto most = setting("/proc/sys/net/core/wmem_max");
    const std::string bound =
        most ? ", net.core.wmem_max is " + grouped(static_cast<uint64_t>(*most)) : std::string();
    const std::string seen = "a socket of this user gets a send buffer of " + bytes_text(size);
    if (size >= kSendBuffer) return findings.ok("send buffer", seen + bound);
    findings.warn("send buffer", seen + " instead of " + bytes_text(kSendBuffer) + bound,
                  sysctl_remedy("net.core.wmem_max=" + std::to_string(kSendBuffer)));
}

void check_descriptors(Findings &findings) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::string seen = (limit.rlim_cur == RLIM_INFINITY ? "any number of" : grouped(limit.rlim_cur)) +
                             " descriptors for a process started from here";
    if (limit.rlim_cur >= kFewDescriptors) return findings.ok("open files", seen);
    findings.warn("open files", seen + "; files that are received may take half of them",
                  "ulimit -n 4096    # of a service: LimitNOFILE=4096 in its unit");
}

void check_room(Findings &findings) {
    struct statvfs disk {};
    if (access("/tmp", W_OK | X_OK) != 0 || statvfs("/tmp", &disk) != 0)
        return findings.fail("/tmp", std::string("this user cannot write to it: ") + std::strerror(errno),
                             as_root("chmod 1777 /tmp"));
    const double room = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize);
    const std::string seen = bytes_text(room) + " free for files that are received";
    const char *look = "du -xsh /tmp/* | sort -h | tail";
    if (room < kNoRoom || (disk.f_files > 0 && disk.f_favail == 0))
        findings.fail("/tmp", seen + (room < kNoRoom ? "" : ", but not for one more file"), look);
    else if (room < kLittleRoom)
        findings.warn("/tmp", seen, look);
    else
        findings.ok("/tmp", seen);
}

void check_received_files(Findings &findings) {
    constexpr std::string_view kPrefix = "ipc_file.";
    uint64_t count = 0, bytes = 0;
    std::error_code error;
    for (auto entry = fs::directory_iterator("/tmp", error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        struct stat file {};
        const std::string name = entry->path().filename();
        if (!name.starts_with(kPrefix) || name.size() != kPrefix.size() + 6 ||
            lstat(entry->path().c_str(), &file) != 0 || !S_ISREG(file.st_mode) ||
            time(nullptr) - file.st_mtime <= kKeptFile_s)
            continue;
        ++count;
        bytes += static_cast<uint64_t>(file.st_size);
    }
    if (count == 0) return findings.ok("received files", "none left in /tmp by a process that was killed");
    findings.warn("received files",
                  grouped(count) + " left in /tmp by processes that are gone, " +
                      bytes_text(static_cast<double>(bytes)),
                  as_root("find /tmp -maxdepth 1 -type f -name 'ipc_file.*' -mmin +10 -delete"));
}

void check_clock(Findings &findings) {
    constexpr int kEarliestYear = 2020;
    const time_t now = time(nullptr);
    tm date{};
    gmtime_r(&now, &date);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &date);
    if (date.tm_year + 1900 < kEarliestYear)
        return findings.fail("clock", std::string("it shows ") + text,
                             as_root("timedatectl set-time 'YYYY-MM-DD HH:MM:SS'"));
    timex state{};
    if (adjtimex(&state) == TIME_ERROR || (state.status & STA_UNSYNC))
        return findings.warn("clock",
                             std::string(text) +
                                 ", not kept by a time service; time-outs go by it, and a step hits them",
                             as_root("timedatectl set-ntp true"));
    findings.ok("clock", std::string(text) + ", kept by a time service");
}

void check_switches(Findings &findings) {
    struct stat file {};
    if (lstat("/tmp/ipc_debug", &file) == 0)
        findings.warn("trace switch", "/tmp/ipc_debug is there: every module traces each message",
                      "tavctl trace off");
    else
        findings.ok("trace switch", "off");
    const char *root = std::getenv("TAV_INSTALL_ROOT"), *test = std::getenv("IPC_TEST");
    if (root)
        findings.warn("environment",
                      std::string("TAV_INSTALL_ROOT is ") + root +
                          ": identity and manager are read there if it has a config directory, allow-list "
                          "and agent.ini beside the executable all the same",
                      "unset TAV_INSTALL_ROOT");
    if (test && test[0] == '1')
        findings.warn("environment",
                      std::string("IPC_TEST is ") + test +
                          ": processes started from here mark all messages "
                          "for the trace",
                      "unset IPC_TEST");
    if (!root && !(test && test[0] == '1'))
        findings.ok("environment", "neither TAV_INSTALL_ROOT nor IPC_TEST changes anything");
}

} // namespace

void check_machine(Findings &findings) {
    check_queue(findings);
    check_buffers(findings);
    check_descriptors(findings);
    check_room(findings);
    check_received_files(findings);
    check_clock(findings);
    check_switches(findings);
}

} // namespace tavctl
