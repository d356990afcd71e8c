// Whether a socket is live is decided by connecting to it alone: the system's table of open sockets leads to
// directories that nobody has named and to processes, but it is that of this network namespace only.
#include "sockets.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <tuple>
#include <unordered_map>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "files.h"
#include "problem.h"
#include "processes.h"
#include "tavaux.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

constexpr int kLockTries = 200; // a millisecond each: a lock is held for far less

// The N of "zon_ipcN", or -1.
long location_of(std::string_view name) {
    constexpr std::string_view kPrefix = "zon_ipc";
    if (!name.starts_with(kPrefix) || name.size() == kPrefix.size()) return -1;
    return number_of(name.substr(kPrefix.size()));
}

pid_t sender_of(const std::string &name) {
    const size_t line = name.find('_');
    if (!name.starts_with("ipc") || line == name.npos || line == 3 || line + 1 == name.size()) return 0;
    const long process = number_of(name.substr(3, line - 3));
    return process > 0 && number_of(name.substr(line + 1)) >= 0 ? static_cast<pid_t>(process) : 0;
}

// Directories "zon_ipcN" in one place, each once.
class Finder {
  public:
    void add(const std::string &path, int location, bool own = false, bool named = false) {
        std::error_code error;
        const fs::path real = fs::canonical(path, error);
        if (!seen_.insert(error ? fs::path(path) : real).second) return;
        SocketDirectory directory;
        directory.path = path;
        directory.location = location;
        directory.own = own;
        directory.named = named;
        directories.push_back(std::move(directory));
    }

    void add_below(const std::string &base, bool own, bool named) {
        std::error_code error;
        for (auto entry = fs::directory_iterator(base, error); !error && entry != fs::directory_iterator();
             entry.increment(error)) {
            const std::string name = entry->path().filename();
            if (const long location = location_of(name); location >= 0 && entry->is_directory(error))
                add(base + "/" + name, static_cast<int>(location), own, named);
            error.clear();
        }
    }

    // Those that really lie below /var: a link is nobody's socket directory until somebody names it.
    void add_open(const Inodes &inodes) {
        for (const auto &[path, inode] : inodes) {
            const fs::path directory = fs::path(path).parent_path();
            const long location = location_of(directory.filename().native());
            std::error_code error;
            if (location >= 0 && path.starts_with("/var/") && fs::canonical(directory, error) == directory)
                add(directory, static_cast<int>(location));
        }
    }

    std::vector<SocketDirectory> directories;

  private:
    std::set<fs::path> seen_;
};

Finder find_known(const std::vector<std::string> &deploy_types) {
    Finder finder;
    const char *type = GetDeployTypeStr();
    finder.add_below(type ? std::string("/var/") + type : "/var", true, true);
    finder.add_below("/var", false, false);
    for (const std::string &given : deploy_types) {
        if (given.empty() || given.front() == '/' || given.find("..") != given.npos)
            throw misuse("\"" + given + "\" is no deployment type", "it is a path relative to /var");
        finder.add_below("/var/" + given, false, true);
    }
    return finder;
}

// A path to a file that does not change with the directory's.
std::string path_in(const Descriptor &directory, const std::string &name) {
    return "/proc/self/fd/" + std::to_string(directory.get()) + "/" + name;
}

bool look_at(const Descriptor &directory, SocketFile &file) {
    struct stat status {};
    if (fstatat(directory.get(), file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return true;
    if (!S_ISSOCK(status.st_mode)) return false;
    file.device = status.st_dev;
    file.inode = status.st_ino;
    file.owner = status.st_uid;
    file.made = status.st_mtime;
    file.user = user_name(status.st_uid);
    file.sender = sender_of(file.name);
    file.state = probe_socket(path_in(directory, file.name));
    return true;
}

Descriptor open_directory(const std::string &path) {
    return Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

void read_directory(SocketDirectory &directory) {
    const Descriptor files = open_directory(directory.path);
    DIR *stream = files ? fdopendir(dup(files.get())) : nullptr;
    if (!stream) {
        directory.error = std::strerror(errno);
        return;
    }
    while (const dirent *entry = readdir(stream)) {
        SocketFile file;
        file.name = entry->d_name;
        if (file.name == "." || file.name == "..") continue;
        if (!look_at(files, file))
            ++directory.strange;
        else if (file.state != SocketState::kMissing)
            directory.sockets.push_back(std::move(file));
    }
    closedir(stream);
    std::ranges::sort(directory.sockets, [](const SocketFile &a, const SocketFile &b) {
        return std::tie(a.sender, a.name) < std::tie(b.sender, b.name);
    });
}

Scan read_all(std::vector<SocketDirectory> directories) {
    Scan scan;
    scan.directories = std::move(directories);
    std::ranges::sort(scan.directories, [](const SocketDirectory &a, const SocketDirectory &b) {
        return std::tuple(!a.own, a.path) < std::tuple(!b.own, b.path);
    });
    for (SocketDirectory &directory : scan.directories) read_directory(directory);
    return scan;
}

} // namespace

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
    if (path.size() >= sizeof address.sun_path) return SocketState::kForbidden;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const Descriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return SocketState::kLive;
    switch (errno) {
    case ECONNREFUSED:
        return SocketState::kStale;
    case ENOENT:
        return SocketState::kMissing;
    case EPROTOTYPE:
        return SocketState::kNoSocket; // a stream socket: not one of ours
    case EAGAIN:
    case EPERM: // it is connected, as sending sockets are, and takes datagrams of its peer alone
        return SocketState::kLive;
    default:
        return SocketState::kForbidden;
    }
}

Scan scan_known(const std::vector<std::string> &deploy_types) {
    return read_all(find_known(deploy_types).directories);
}

Scan scan_everything(const std::vector<std::string> &deploy_types) {
    const Inodes inodes = open_sockets();
    Finder finder = find_known(deploy_types);
    finder.add_open(inodes);
    Scan scan = read_all(std::move(finder.directories));
    std::unordered_map<uint64_t, SocketFile *> wanted;
    for (SocketDirectory &directory : scan.directories)
        for (SocketFile &file : directory.sockets) {
            const auto open = inodes.find(fs::path(directory.path + "/" + file.name).lexically_normal());
            if (file.state == SocketState::kLive && open != inodes.end() && open->second != 0)
                wanted[open->second] = &file;
        }
    find_processes(wanted);
    for (const SocketDirectory &directory : scan.directories)
        scan.incomplete |= std::ranges::any_of(directory.sockets, [](const SocketFile &file) {
            return file.state == SocketState::kForbidden ||
                   (file.state == SocketState::kLive && file.process == 0);
        });
    return scan;
}

// While the lock is held no endpoint replaces the file, and none can be bound to its path as long as it is
// there. The removal goes by the open directory, wherever the path may lead by now.
Removal remove_stale(const std::string &path, const SocketFile &file) {
    const Descriptor directory = open_directory(path);
    if (!directory) return errno == ENOENT ? Removal::kGone : Removal::kFailed;
    for (int tries = 0; flock(directory.get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
        if (errno != EWOULDBLOCK || tries == kLockTries) return Removal::kFailed;
        usleep(1000);
    }
    for (int look = 0; look < 2; ++look) { // before the probe, and after it
        SocketFile now;
        now.name = file.name;
        if (!look_at(directory, now) || now.state == SocketState::kMissing) return Removal::kGone;
        if (now.device != file.device || now.inode != file.inode || now.state != SocketState::kStale)
            return Removal::kInUse;
    }
    if (unlinkat(directory.get(), file.name.c_str(), 0) == 0) return Removal::kRemoved;
    return errno == ENOENT ? Removal::kGone : Removal::kFailed;
}

} // namespace tavctl
