#include "module/library_state.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/console.h"
#include "cli/files.h"
#include "common/facts.h"
#include "common/unique_fd.h"
#include "module/module.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

// An attempt to send ends after 1 s; the library repeats it after another second, and logs that it will.
constexpr double kAttempt_s = 1.2, kAttemptAndPause_s = 2.5;

uint64_t retries = 0;
std::string dropped; // the first line that reports it

void read_line(const std::string &line) {
    retries += line.find("retry later") != line.npos;
    if (dropped.empty() && line.find("drop it|") != line.npos) dropped = line;
}

} // namespace

void watch_departures() { watch_log(read_line); }

// The library writes a line when it repeats an attempt and when it drops a message. Once it has been silent
// for longer than an attempt and the pause before the next, all messages have left.
void wait_for_departures(const tav_addr_st &destination) {
    const uint64_t retries_before = retries;
    uint64_t seen = retries;
    double since = now_seconds();
    const Wait ended = run_until([&] {
        if (retries != seen) since = now_seconds();
        seen = retries;
        const double silent_s = seen == retries_before ? kAttempt_s : kAttemptAndPause_s;
        return !dropped.empty() || now_seconds() - since > silent_s;
    });
    if (ended == Wait::kInterrupted) throw Problem("interrupted before the message had left");
    if (!dropped.empty()) throw Problem("dropped: " + dropped, silence(destination).remedy());
}

// A new descriptor is the lowest free one: a trial tells which one the library gets.
FilePosition::FilePosition(int file, const std::function<void()> &begin)
    : library_fd_(tavipc::UniqueFd(dup(file)).get()) {
    struct stat info {};
    fstat(file, &info);
    device_ = info.st_dev;
    inode_ = info.st_ino;
    begin();
}

std::optional<uint64_t> FilePosition::get() const {
    struct stat now {};
    if (fstat(library_fd_, &now) != 0 || now.st_dev != device_ || now.st_ino != inode_) return {};
    const off_t at = lseek(library_fd_, 0, SEEK_CUR);
    if (at < 0) return {};
    return static_cast<uint64_t>(at);
}

// A file that is being received is open for writing; one that is complete is at most open for reading.
unsigned drop_unfinished_files() {
    const std::string_view pattern = tavipc::kReceivedFile, prefix = pattern.substr(0, pattern.find('X'));
    unsigned count = 0;
    for (const fs::path &fd : files_in("/proc/self/fd")) {
        std::error_code closed;
        const std::string target = fs::read_symlink(fd, closed);
        const fs::perms mode = fs::symlink_status(fd, closed).permissions();
        const bool writes = !closed && (mode & fs::perms::owner_write) != fs::perms::none;
        if (writes && target.starts_with(prefix) && unlink(target.c_str()) == 0) ++count;
    }
    return count;
}

} // namespace tavctl
