// tavctl sendfile: a whole file, with its progress and its digest.
//
// The library tells only the end of a transfer. How far it is shows the position of the descriptor that the
// library reads from, which lies in this process: one chunk is under way and the next one is read ahead, so
// everything before the last two chunks has been confirmed. The digest is made beside the transfer, by a
// thread that follows this position, while the file's pages are in memory.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

#include "commands.h"
#include "files.h"
#include "module.h"
#include "transfers.h"

namespace tavctl {
namespace {

constexpr uint64_t kChunk = TAV_IPC_FRAGMENT_PAYLOAD;

const char *kind_text(mode_t mode) {
    return S_ISDIR(mode)    ? "a directory"
           : S_ISFIFO(mode) ? "a pipe"
           : S_ISSOCK(mode) ? "a socket"
                            : "a device";
}

Descriptor open_source(const std::string &path, struct stat &info) {
    const std::string name = harmless(path);
    const auto refuse_other_kinds = [&] {
        if (S_ISREG(info.st_mode)) return;
        throw Problem(name + " is no regular file but " + kind_text(info.st_mode),
                      S_ISDIR(info.st_mode) ? "pack it into one file first: tar -cf FILE " + quoted(name)
                                            : "write what it gives into a file first");
    };
    if (stat(path.c_str(), &info) != 0) throw system_problem("cannot find the file " + name);
    refuse_other_kinds(); // before it is opened, which does something to pipes and devices
    Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file || fstat(file.get(), &info) != 0)
        throw system_problem("cannot read " + name, "run tavctl as a user who may read it");
    refuse_other_kinds();
    return file;
}

// The digest of a file, by a thread of its own.
class Hasher {
  public:
    explicit Hasher(int fd) : fd_(fd), buffer_(1u << 20), thread_([this] { run(); }) {}
    ~Hasher() {
        stopped_ = true;
        finish();
    }
    Hasher(const Hasher &) = delete;
    // It reads up to there at most.
    void follow(uint64_t position) {
        limit_ = position;
        limit_.notify_one();
    }
    // Lets it read to the end of the file, and waits for it.
    void finish() {
        follow(UINT64_MAX);
        if (thread_.joinable()) thread_.join();
    }
    uint64_t size() const { return size_; }
    int error() const { return error_; } // errno where reading ended early, or 0
    std::string hex() { return digest_.hex(); }

  private:
    void run() {
        while (!stopped_) {
            const uint64_t limit = limit_;
            if (size_ >= limit) {
                limit_.wait(limit);
                continue;
            }
            const size_t most = std::min<uint64_t>(buffer_.size(), limit - size_);
            const ssize_t got = pread(fd_, buffer_.data(), most, static_cast<off_t>(size_));
            if (got < 0) error_ = errno;
            if (got <= 0) return;
            digest_.update(buffer_.data(), static_cast<size_t>(got));
            size_ += static_cast<uint64_t>(got);
        }
    }

    const int fd_;
    std::vector<char> buffer_;
    Sha256 digest_;
    uint64_t size_ = 0; // this and the next two: the thread's until it was joined
    int error_ = 0;
    std::atomic<uint64_t> limit_ = 0;
    std::atomic<bool> stopped_ = false;
    std::thread thread_; // the last: it uses the others
};

// The descriptor that the library opens for the same file.
class Reader {
  public:
    // Before the library opens the file: a new descriptor is the lowest free one.
    explicit Reader(const Descriptor &file, const struct stat &info)
        : fd_(Descriptor(dup(file.get())).get()), info_(info) {}
    // How far the library has read; nothing when it has closed the file.
    std::optional<uint64_t> position() const {
        struct stat now {};
        if (fstat(fd_, &now) != 0 || now.st_dev != info_.st_dev || now.st_ino != info_.st_ino) return {};
        const off_t at = lseek(fd_, 0, SEEK_CUR);
        if (at < 0) return {};
        return static_cast<uint64_t>(at);
    }

  private:
    const int fd_;
    const struct stat info_;
};

std::string whole_seconds(double seconds) {
    return seconds < 99.5 ? std::to_string(std::lround(seconds)) + " s" : time_text(seconds);
}

std::string bar_text(unsigned width, uint64_t done, uint64_t size, const std::string &tail) {
    const double part = size > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(size)) : 0;
    const std::string percent = size > 0 ? std::to_string(static_cast<int>(part * 100)) + " %" : "";
    std::string text = std::string(5 - std::min<size_t>(5, percent.size()), ' ') + percent + "  " +
                       bytes_text(static_cast<double>(done)) + tail;
    const size_t used = text.size() + 4; // its brackets, a blank, and the last column stays empty
    if (size == 0 || width < used + 8) return text;
    const size_t room = std::min<size_t>(50, width - used), full = static_cast<size_t>(part * double(room));
    return "[" + std::string(full, '=') + (full < room ? ">" : "") +
           std::string(room - std::min(room, full + 1), ' ') + "] " + text;
}

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
    double looked_ = now_seconds(), told_ = looked_, moved_ = looked_, lapse_ = 0;
    double rate_ = -1;
    uint64_t done_ = 0;
};

struct Transfer {
    bool ended = false;
    int32_t code = 0;
};
int on_end(int32_t code, void *user) {
    *static_cast<Transfer *>(user) = {true, code};
    return 0;
}

Problem failed_transfer(const tav_addr_st &destination, int32_t code, uint64_t done) {
    const std::string who = address_text(destination);
    const std::string reached = done > 0 ? "; at least " + grouped(done) + " bytes had arrived" : "";
    switch (code) {
    case IPC_ERR_TIMEOUT: {
        const Problem why = silence(destination);
        return Problem(why.what() + reached, why.remedy(), why.status());
    }
    case IPC_ERR_OPEN_FILE:
        return Problem("the library cannot open the file",
                       "it needs one more descriptor and /proc: see ulimit -n");
    case IPC_ERR_NOMEM:
        return Problem("the library has no memory for the transfer", "end other processes");
    case IPC_ERR_FILE_ID:
        return Problem(who + " is receiving a file of another sender under the same id" + reached,
                       "send it again: ids are drawn anew each time");
    case IPC_ERR_FILE_CLOSED:
        return Problem(who + " has a complete file of this id already" + reached,
                       "send it again: ids are drawn anew each time");
    case IPC_ERR_IO:
        return Problem(who + " cannot store the file" + reached,
                       "make room in the receiver's /tmp (df /tmp), where unfinished files lie for 5 "
                       "minutes; its log tells when it receives too many files at a time");
    case IPC_ERR_NOT_SUPPORTED:
        return Problem(who + " accepts no files",
                       "its module must open the endpoint with accept_files; tavctl recvfile DIR receives "
                       "files for a trial");
    default: {
        const Problem why = failed_exchange(destination, code);
        return Problem(why.what() + reached, why.remedy(), why.status());
    }
    }
}

// What the destination has, with the digest.
void say_delivered(Console &out, const SendFileOptions &options, int32_t file_id, const Descriptor &file,
                   const struct stat &info, Hasher &hasher, double took) {
    const std::string who = address_text(parse_address(options.destination));
    hasher.finish();
    if (hasher.error() != 0)
        throw Problem("cannot read " + harmless(options.path) + " beyond " + grouped(hasher.size()) +
                      " bytes: " + strerror(hasher.error()) + "; what arrived ends there or before");
    struct stat after {};
    const bool changed = fstat(file.get(), &after) != 0 || after.st_size != info.st_size ||
                         after.st_mtim.tv_sec != info.st_mtim.tv_sec ||
                         after.st_mtim.tv_nsec != info.st_mtim.tv_nsec ||
                         hasher.size() != static_cast<uint64_t>(info.st_size);
    const double rate = static_cast<double>(hasher.size()) / took;
    Record record;
    record.add("type", "file").add("to", who).add("path", harmless(options.path));
    record.add("seconds", took).add("rate", rate).add("file_id", file_id).add("changed", changed);
    const std::string hex = hasher.hex();
    if (changed) // what was read for the digest is not what the library read
        record.add_null("bytes").add_null("sha256");
    else
        record.add("bytes", hasher.size()).add("sha256", hex);
    out.say(record, who + (changed ? ": about " : ": ") + grouped(hasher.size()) + " bytes delivered in " +
                        time_text(took) + ", " + bytes_text(rate) + "/s, file id " + std::to_string(file_id) +
                        (changed ? "\n  the file changed meanwhile: what arrived may be of neither state; "
                                   "the receiver knows its size"
                                 : "\n  sha256 " + hex));
}

} // namespace

int send_file(Console &out, const SendFileOptions &options) {
    const tav_addr_st destination = parse_address(options.destination);
    struct stat info {};
    const Descriptor file = open_source(options.path, info);
    catch_interrupts();
    Transfer transfer; // before the endpoint: its end completes the transfer
    const Module module(Module::kReceiving);
    Hasher hasher(file.get());
    Progress progress(out, static_cast<uint64_t>(info.st_size));
    const Reader reader(file, info);
    const double begin = now_seconds();
    // By the descriptor, so that the library reads the file that was looked at.
    tav_ipc_send_file(module, &destination, ("/proc/self/fd/" + std::to_string(file.get())).c_str(), on_end,
                      &transfer, options.timeout_s);
    const bool tracked = reader.position() || static_cast<uint64_t>(info.st_size) <= kChunk;
    const Wait wait = run_until([&] {
        if (tracked && !transfer.ended && progress.due()) {
            const auto position = reader.position();
            const uint64_t unsure = position ? 2 * kChunk : kChunk; // read to its end: the last one
            const uint64_t known = position.value_or(static_cast<uint64_t>(info.st_size));
            hasher.follow(known);
            progress.show(known - std::min(known, unsure));
        }
        return transfer.ended;
    });
    const double took = now_seconds() - begin;
    if (wait == Wait::kInterrupted)
        throw Problem("interrupted when at least " + grouped(progress.done()) + " bytes had arrived",
                      "the receiver removes the unfinished file within 6 minutes; send it again");
    if (!transfer.ended) throw Problem("the event loop ended before the transfer did");
    if (transfer.code < 0) throw failed_transfer(destination, transfer.code, progress.done());

    say_delivered(out, options, transfer.code, file, info, hasher, took);
    return kSuccess;
}

} // namespace tavctl
