// A socket is live when connecting to it succeeds. The kernel's table of open sockets adds directories that
// nobody has named, and processes; it only covers this network namespace.
#include <cstdio>
#include <fstream>
#include <set>
#include <tuple>
#include <unordered_map>

#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "common/facts.h"
#include "look/sockets.h"
#include "tavaux.h"

namespace tavctl {
namespace {

// The effective user.
std::string user_of_process(const std::string &directory) {
    std::ifstream lines(directory + "/status");
    unsigned real = 0, effective = 0;
    for (std::string line; std::getline(lines, line);)
        if (std::sscanf(line.c_str(), "Uid: %u %u", &real, &effective) == 2) return user_name(effective);
    return "-"; // the process has ended
}

// Path -> inode number of the datagram socket that is bound to it in this network namespace; 0 where that is
// ambiguous. A process chooses the path that the kernel's table shows, line ends included, so a path or inode
// that appears twice proves nothing.
using Inodes = std::unordered_map<std::string, uint64_t>;

Inodes open_sockets() {
    constexpr unsigned kDatagram = 2;
    Inodes inodes;
    std::unordered_map<uint64_t, int> claims;
    std::ifstream lines("/proc/net/unix"); // without it the processes stay unknown
    for (std::string line; std::getline(lines, line);) {
        unsigned type = 0;
        unsigned long long inode = 0;
        int path = 0;
        if (std::sscanf(line.c_str(), "%*x: %*x %*x %*x %x %*x %llu %n", &type, &inode, &path) != 2 ||
            type != kDatagram || path == 0 || line[static_cast<size_t>(path)] != '/')
            continue;
        const auto [entry, is_new] = inodes.emplace(
            fs::path(line.substr(static_cast<size_t>(path))).lexically_normal().string(), inode);
        if (!is_new) entry->second = 0;
        ++claims[inode];
    }
    for (auto &[path, inode] : inodes)
        if (claims[inode] > 1) inode = 0;
    return inodes;
}

using Owner = std::tuple<pid_t, std::string, std::string>; // process, executable, user
// The processes that have these sockets open: one pass over /proc.
std::unordered_map<uint64_t, Owner> find_owners(const Inodes &sockets) {
    std::set<uint64_t> wanted;
    for (const auto &[path, inode] : sockets) wanted.insert(inode);
    std::unordered_map<uint64_t, Owner> owners;
    for (const fs::path &process : files_in("/proc")) {
        const std::string directory = process;
        const long number = number_of(process.filename().native());
        if (number < 0) continue;
        for (const fs::path &fd : files_in(directory + "/fd")) { // none of what this user may not see
            std::error_code closed;
            const std::string target = fs::read_symlink(fd, closed);
            unsigned long long inode = 0;
            if (std::sscanf(target.c_str(), "socket:[%llu]", &inode) != 1 || !wanted.contains(inode) ||
                owners.contains(inode))
                continue;
            owners[inode] = {static_cast<pid_t>(number),
                             fs::read_symlink(directory + "/exe", closed).string(),
                             user_of_process(directory)};
        }
    }
    return owners;
}

// The N of "zon_ipcN", or -1.
long location_of(std::string_view name) {
    constexpr std::string_view kPrefix = tavipc::kSocketDirectory;
    return name.starts_with(kPrefix) ? number_of(name.substr(kPrefix.size())) : -1;
}

pid_t sender_of(const std::string &name) {
    const size_t line = name.find('_');
    if (!name.starts_with("ipc") || line == name.npos || number_of(name.substr(line + 1)) < 0) return 0;
    return static_cast<pid_t>(std::max(0L, number_of(std::string_view(name).substr(3, line - 3))));
}

// Collects socket directories, each once.
class Finder {
  public:
    void add(const std::string &path, long location, bool own = false, bool named = false) {
        std::error_code error;
        const fs::path real = fs::canonical(path, error);
        if (!seen_.insert(error ? fs::path(path) : real).second) return;
        directories.push_back({path, static_cast<int>(location), own, named, {}, 0, {}});
    }
    void add_below(const std::string &base, bool own, bool named) {
        for (const fs::path &path : files_in(base)) {
            std::error_code gone;
            const long location = location_of(path.filename().native());
            if (location >= 0 && fs::is_directory(path, gone)) add(path.string(), location, own, named);
        }
    }
    // Adds those that lie below /var without links: a link counts only when somebody names it.
    void add_open(const Inodes &inodes) {
        for (const auto &[path, inode] : inodes) {
            const fs::path directory = fs::path(path).parent_path();
            const long location = location_of(directory.filename().native());
            std::error_code error;
            if (location >= 0 && path.starts_with(tavipc::kSocketRoot) &&
                fs::canonical(directory, error) == directory)
                add(directory, location);
        }
    }
    std::vector<SocketDirectory> directories;

  private:
    std::set<fs::path> seen_;
};

Finder find_known(const std::vector<std::string> &deploy_types) {
    const std::string root = tavipc::kSocketRoot, var = root.substr(0, root.size() - 1);
    Finder finder;
    const char *type = GetDeployTypeStr();
    finder.add_below(type ? root + type : var, true, true);
    finder.add_below(var, false, false);
    for (const std::string &given : deploy_types) {
        if (given.empty() || given.front() == '/' || given.find("..") != given.npos)
            throw misuse("\"" + given + "\" is not a deployment type", "give a path relative to /var");
        finder.add_below(root + given, false, true);
    }
    return finder;
}

// False when the file is not a socket. The path used goes by the open directory, wherever that has moved.
bool look_at(const UniqueFd &directory, SocketFile &file) {
    struct stat status {};
    if (fstatat(directory.get(), file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return true;
    if (!S_ISSOCK(status.st_mode)) return false;
    file.device = status.st_dev;
    file.inode = status.st_ino;
    file.owner = status.st_uid;
    file.made = status.st_mtime;
    file.user = user_name(status.st_uid);
    file.sender = sender_of(file.name);
    file.state = probe_socket("/proc/self/fd/" + std::to_string(directory.get()) + "/" + file.name);
    return true;
}

UniqueFd open_directory(const std::string &path) {
    return UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

void read_directory(SocketDirectory &directory) {
    const UniqueFd files = open_directory(directory.path);
    if (!files) directory.error = std::strerror(errno);
    if (!files) return;
    for (const fs::path &path : files_in("/proc/self/fd/" + std::to_string(files.get()))) {
        SocketFile file;
        file.name = path.filename();
        if (!look_at(files, file))
            directory.strange += !file.name.ends_with(".stats"); // those are files of counters
        else if (file.state == SocketState::kNoSocket && file.name.starts_with("ipc.monitor"))
            continue; // it listens for modules; no endpoint has a name of this length
        else if (file.state != SocketState::kMissing)
            directory.sockets.push_back(std::move(file));
    }
    std::ranges::sort(directory.sockets, {},
                      [](const SocketFile &file) { return std::tie(file.sender, file.name); });
}

Scan read_all(std::vector<SocketDirectory> directories) {
    Scan scan{std::move(directories)};
    std::ranges::sort(scan.directories, {},
                      [](const SocketDirectory &each) { return std::tuple(!each.own, each.path); });
    for (SocketDirectory &directory : scan.directories) read_directory(directory);
    return scan;
}

} // namespace

std::string user_name(uid_t user) {
    static std::map<uid_t, std::string> known;
    std::string &name = known[user];
    if (const passwd *entry = name.empty() ? getpwuid(user) : nullptr) name = entry->pw_name;
    if (name.empty()) name = std::to_string(user);
    return name;
}

size_t SocketDirectory::count(SocketState state) const {
    return static_cast<size_t>(std::ranges::count(sockets, state, &SocketFile::state));
}

SocketState probe_socket(const std::string &path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0)
        return errno == EACCES ? SocketState::kForbidden : SocketState::kMissing;
    if (!S_ISSOCK(file.st_mode)) return SocketState::kNoSocket;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() > tavipc::kLongestSocketPath) return SocketState::kForbidden;
    path.copy(address.sun_path, path.size());
    const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    // EAGAIN, EPERM: it is connected, as sending sockets are, and only takes datagrams of its peer.
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno == EAGAIN || errno == EPERM)
        return SocketState::kLive;
    if (errno == ECONNREFUSED) return SocketState::kStale;
    if (errno == ENOENT) return SocketState::kMissing;
    // EPROTOTYPE: a stream socket, which is not of the library
    return errno == EPROTOTYPE ? SocketState::kNoSocket : SocketState::kForbidden;
}

Scan scan_known(const std::vector<std::string> &deploy_types) {
    return read_all(find_known(deploy_types).directories);
}

std::vector<SocketDirectory> find_directories(const std::vector<std::string> &deploy_types) {
    Finder finder = find_known(deploy_types);
    finder.add_open(open_sockets());
    return std::move(finder.directories);
}

Scan scan_everything(const std::vector<std::string> &deploy_types) {
    const Inodes inodes = open_sockets();
    Finder finder = find_known(deploy_types);
    finder.add_open(inodes);
    Scan scan = read_all(std::move(finder.directories));
    const auto owners = find_owners(inodes);
    for (SocketDirectory &directory : scan.directories)
        for (SocketFile &file : directory.sockets) {
            const auto open = inodes.find(fs::path(directory.path + "/" + file.name).lexically_normal());
            const bool live = file.state == SocketState::kLive;
            const auto owner = live && open != inodes.end() ? owners.find(open->second) : owners.end();
            if (owner != owners.end()) std::tie(file.process, file.executable, file.user) = owner->second;
            scan.incomplete |= file.state == SocketState::kForbidden || (live && file.process == 0);
        }
    return scan;
}

// While the lock is held no endpoint replaces the file, and none can be bound to the path of a file.
int remove_stale(const std::string &path, const SocketFile &file) {
    const UniqueFd directory = open_directory(path);
    if (!directory) return errno;
    for (int tries = 0; flock(directory.get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
        if (errno != EWOULDBLOCK || tries == tavipc::kDirectoryLockTries) return errno;
        usleep(tavipc::kDirectoryLockPause_us);
    }
    for (int look = 0; look < 2; ++look) { // before the probe, and after it
        SocketFile now;
        now.name = file.name;
        if (!look_at(directory, now) || now.state != SocketState::kStale || now.device != file.device ||
            now.inode != file.inode)
            return ENOENT;
    }
    return unlinkat(directory.get(), file.name.c_str(), 0) == 0 ? 0 : errno;
}

} // namespace tavctl
