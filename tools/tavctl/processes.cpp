#include "processes.h"

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>

#include <pwd.h>

#include "files.h"
#include "problem.h"
#include "sockets.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

constexpr size_t kMostOfProc = 256 << 20;

std::string user_of_process(const std::string &directory) {
    try {
        std::istringstream lines(read_file(directory + "/status", 65536));
        unsigned real = 0, effective = 0;
        for (std::string line; std::getline(lines, line);)
            if (std::sscanf(line.c_str(), "Uid: %u %u", &real, &effective) == 2) return user_name(effective);
    } catch (const Problem &) { // it has ended
    }
    return "-";
}

} // namespace

// The number that is the whole text, or -1.
long number_of(std::string_view text) {
    if (text.empty() || text.front() == '-') return -1;
    long number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

std::string user_name(uid_t user) {
    static std::map<uid_t, std::string> known;
    std::string &name = known[user];
    if (const passwd *entry = name.empty() ? getpwuid(user) : nullptr) name = entry->pw_name;
    if (name.empty()) name = std::to_string(user);
    return name;
}

Inodes open_sockets() {
    constexpr unsigned kDatagram = 2;
    Inodes inodes;
    std::unordered_map<uint64_t, int> claims;
    std::string text;
    try {
        text = read_file("/proc/net/unix", kMostOfProc);
    } catch (const Problem &) {
        return inodes; // the processes stay unknown
    }
    std::istringstream lines(text);
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

void find_processes(const std::unordered_map<uint64_t, SocketFile *> &wanted) {
    std::error_code error;
    for (auto process = fs::directory_iterator("/proc", error); !error && process != fs::directory_iterator();
         process.increment(error)) {
        const std::string directory = process->path();
        const long number = number_of(process->path().filename().native());
        std::error_code gone; // or not for this user
        for (auto fd = fs::directory_iterator(number > 0 ? directory + "/fd" : "", gone);
             !gone && fd != fs::directory_iterator(); fd.increment(gone)) {
            std::error_code closed;
            const std::string target = fs::read_symlink(fd->path(), closed);
            unsigned long long inode = 0;
            if (std::sscanf(target.c_str(), "socket:[%llu]", &inode) != 1) continue;
            const auto found = wanted.find(inode);
            if (found == wanted.end() || found->second->process != 0) continue;
            SocketFile &file = *found->second;
            file.process = static_cast<pid_t>(number);
            file.executable = fs::read_symlink(directory + "/exe", closed);
            file.user = user_of_process(directory);
        }
    }
}

} // namespace tavctl
