// tavctl sendfile: sends a whole file, with its progress and its digest.
#include <algorithm>
#include <cmath>

#include <fcntl.h>
#include <sys/stat.h>

#include "cli/text.h"
#include "commands.h"
#include "common/unique_fd.h"
#include "file/digest.h"
#include "module/library_state.h"
#include "module/module.h"

namespace tavctl {
namespace {

using tavipc::UniqueFd;

constexpr uint64_t kChunk = TAV_IPC_FRAGMENT_PAYLOAD; // bytes

void refuse_other_kinds(const std::string &name, mode_t mode) {
    if (S_ISREG(mode)) return;
    const char *kind = S_ISDIR(mode)    ? "a directory"
                       : S_ISFIFO(mode) ? "a pipe"
                       : S_ISSOCK(mode) ? "a socket"
                                        : "a device";
    throw Problem(name + " is not a regular file but " + kind,
                  S_ISDIR(mode) ? "pack it into one file first: tar -cf FILE " + quoted(name)
                                : "write its output to a file first");
}

UniqueFd open_source(const std::string &path, struct stat &info) {
    const std::string name = harmless(path);
    if (stat(path.c_str(), &info) != 0) throw system_problem("cannot find the file " + name);
    refuse_other_kinds(name, info.st_mode); // before it is opened, which has effects on pipes and devices
    UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file || fstat(file.get(), &info) != 0)
        throw system_problem("cannot read " + name, "run tavctl as a user who may read it");
    refuse_other_kinds(name, info.st_mode);
    return file;
}

std::string whole_seconds(double seconds) {
    return seconds < 99.5 ? std::to_string(std::lround(seconds)) + " s" : time_text(seconds);
}

std::string bar_text(unsigned width, uint64_t done, uint64_t size, const std::string &tail) {
    const double part = size > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(size)) : 0;
    const std::string percent = size > 0 ? std::to_string(static_cast<int>(part * 100)) + " %" : "";
    std::string text = std::string(5 - std::min<size_t>(5, percent.size()), ' ') + percent + "  " +
                       bytes_text(static_cast<double>(done)) + tail;
    const size_t used = text.size() + 4; // with brackets and a blank; the last column stays empty
    if (size == 0 || width < used + 8) return text;
    const size_t length = std::min<size_t>(50, width - used),
                 full = static_cast<size_t>(part * double(length));
    return "[" + std::string(full, '=') + (full < length ? ">" : "") +
           std::string(length - std::min(length, full + 1), ' ') + "] " + text;
}

// A bar on a terminal; elsewhere a line every ten seconds.
class Progress {
  public:
    Progress(Console &out, uint64_t size) : out_(out), size_(size) {}
    // True when it is time to look again.
    bool due() {
        const double now = now_seconds();
        if (now - looked_ < 0.1) return false;
        lapse_ = now - looked_;
        looked_ = now;
        return true;
    }
    void show(uint64_t done) {
        if (done > done_) moved_ = looked_;
        const double rate = static_cast<double>(done - std::min(done, done_)) / lapse_;
        rate_ = rate_ < 0 ? rate : 0.9 * rate_ + 0.1 * rate;
        done_ = std::max(done, done_);
        if (out_.shows_progress()) {
            const unsigned width = out_.width();
            return out_.progress(bar_text(width > 0 ? width : 80, done_, size_, tail()));
        }
        if (looked_ - told_ < 10) return;
        told_ = looked_;
        out_.tell(bytes_text(static_cast<double>(done_)) +
                  (size_ > 0 ? " of " + bytes_text(static_cast<double>(size_)) : "") + tail());
    }
    uint64_t done() const { return done_; }

  private:
    std::string tail() const {
        if (looked_ - moved_ > 2)
            return ", no confirmation for " + whole_seconds(std::floor(looked_ - moved_));
        const double left = static_cast<double>(size_ - std::min(size_, done_));
        return ", " + bytes_text(rate_) + "/s" +
               (rate_ >= 1 && size_ > 0 ? ", " + whole_seconds(std::ceil(left / rate_)) + " left" : "");
    }
    Console &out_;
    const uint64_t size_;
    double looked_ = now_seconds(), told_ = looked_, moved_ = looked_, lapse_ = 0; // seconds
    double rate_ = -1;                                                             // bytes per second
    uint64_t done_ = 0;
};

Problem failed_transfer(const tav_addr_st &destination, int32_t code, uint64_t done) {
    const std::string who = address_text(destination);
    const std::string reached = done > 0 ? "; at least " + grouped(done) + " bytes had arrived" : "";
    const char *again = "send it again: ids are drawn anew each time";
    switch (code) {
    case IPC_ERR_OPEN_FILE:
        return Problem("the library cannot open the file",
                       "it needs one more descriptor and /proc: see ulimit -n");
    case IPC_ERR_NOMEM:
        return Problem("the library has no memory for the transfer", "end other processes");
    case IPC_ERR_FILE_ID:
        return Problem(who + " is receiving a file of another sender under the same id" + reached, again);
    case IPC_ERR_FILE_CLOSED:
        return Problem(who + " has a complete file of this id already" + reached, again);
    case IPC_ERR_IO:
        return Problem(who + " cannot store the file" + reached,
                       "make room in the receiver's /tmp (df /tmp), where unfinished files stay for 5 "
                       "minutes; its log shows when it receives too many files at a time");
    case IPC_ERR_NOT_SUPPORTED:
        return Problem(who + " accepts no files",
                       "its module must open the endpoint with accept_files; tavctl recvfile DIR receives "
                       "files for a trial");
    default:
        const Problem why = failed_exchange(destination, code);
        return Problem(why.what() + reached, why.remedy(), why.status());
    }
}

// Reports what arrived. What the digest's thread read may differ from what the library read when the file was
// changed meanwhile.
void say_delivered(Console &out, Record &&record, const Exchange &transfer, int file, const struct stat &info,
                   const FileDigest &digest) {
    struct stat after {};
    const bool changed = fstat(file, &after) != 0 || after.st_size != info.st_size ||
                         after.st_mtim.tv_sec != info.st_mtim.tv_sec ||
                         after.st_mtim.tv_nsec != info.st_mtim.tv_nsec ||
                         digest.size != static_cast<uint64_t>(info.st_size);
    const double rate = static_cast<double>(digest.size) / transfer.took();
    record.add("seconds", transfer.took(), "rate", rate, "file_id", transfer.code, "changed", changed);
    if (changed)
        record.add("bytes", nullptr, "sha256", nullptr);
    else
        record.add("bytes", digest.size, "sha256", digest.sha256);
    out.say(record, changed ? "{to}: about " : "{to}: ",
            grouped(digest.size) + " bytes delivered in " + time_text(transfer.took()) + ", " +
                bytes_text(rate) + "/s" +
                record.fill(changed
                                ? ", file id {file_id}\n  the file changed meanwhile: what arrived may mix "
                                  "both versions; the receiver knows its size"
                                : ", file id {file_id}\n  sha256 {sha256}"));
}

} // namespace

int send_file(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"));
    const std::string path = args.text("FILE");
    struct stat info {};
    const UniqueFd file = open_source(path, info);
    const auto size = static_cast<uint64_t>(info.st_size);
    catch_interrupts();
    Exchange transfer;
    const Module module;
    Progress progress(out, size);
    transfer.begin = now_seconds();
    const FilePosition position(file.get(), [&] { // by the descriptor: the file that was looked at
        tav_ipc_send_file(module, &destination, ("/proc/self/fd/" + std::to_string(file.get())).c_str(),
                          Exchange::on_status, &transfer, static_cast<int32_t>(args.number("timeout")));
    });
    BackgroundDigest background(file.get());
    const bool tracked = position.get() || size <= kChunk;
    const Wait wait = run_until([&] {
        if (tracked && !transfer.ended && progress.due()) {
            // One chunk is on its way and the next is read ahead; at the end of the file the last one is
            // left.
            const auto read = position.get();
            const uint64_t unsure = read ? 2 * kChunk : kChunk, known = read.value_or(size);
            progress.show(known - std::min(known, unsure));
        }
        return transfer.ended;
    });
    if (wait == Wait::kInterrupted)
        throw Problem("interrupted when at least " + grouped(progress.done()) + " bytes had arrived",
                      "the receiver removes the unfinished file within 6 minutes; send it again");
    if (!transfer.ended) throw Problem("the event loop ended before the transfer did");
    if (transfer.code < 0) throw failed_transfer(destination, transfer.code, progress.done());
    const FileDigest digest = background.get();
    if (digest.error != 0)
        throw Problem("cannot read " + harmless(path) + " beyond " + grouped(digest.size) +
                      " bytes: " + strerror(digest.error) + "; what arrived ends there or before");
    say_delivered(out, Record("type", "file", "to", address_text(destination), "path", path), transfer,
                  file.get(), info, digest);
    return kSuccess;
}

} // namespace tavctl
