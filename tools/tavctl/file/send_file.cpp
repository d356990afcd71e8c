// tavctl sendfile: sends a whole file, with its progress and its digest.
#include <cmath>
#include <future>

#include "agent/agent.h"
#include "commands.h"
#include "module/module.h"
#include "tavipc/tav_ipc_file_ext.h"

namespace tavctl {
namespace {

// Shows how far a transfer is: on a terminal ten times a second, elsewhere every ten seconds.
class Progress {
  public:
    Progress(Console &out, uint64_t size) : out_(out), size_(static_cast<double>(size)) {}
    bool due() const { return now_seconds() - shown_ > (out_.shows_progress() ? 0.1 : 10); }
    void show(uint64_t bytes) {
        shown_ = now_seconds();
        if (bytes > done_) moved_ = shown_;
        done_ = bytes;
        const double known = static_cast<double>(bytes), rate = known / (shown_ - begin_);
        std::string text = bytes_text(known) + " of " + bytes_text(size_);
        if (size_ > 0) text = std::to_string(static_cast<int>(100 * known / size_)) + " %  " + text;
        if (shown_ - moved_ > 2)
            text += ", no confirmation for " + time_text(std::floor(shown_ - moved_));
        else if (rate >= 1)
            text += ", " + bytes_text(rate) + "/s, " + time_text(std::ceil((size_ - known) / rate)) + " left";
        out_.shows_progress() ? out_.progress(text) : out_.tell(text);
    }

  private:
    Console &out_;
    const double size_; // bytes
    const double begin_ = now_seconds();
    double shown_ = begin_, moved_ = begin_;
    uint64_t done_ = 0; // bytes
};

struct Transfer : Exchange {
    Transfer(Console &out, uint64_t size) : progress(out, size) {}
    Progress progress;
    uint64_t id = 0, confirmed = 0; // bytes
    static void on_progress(uint64_t, uint64_t confirmed, uint64_t, void *transfer) {
        static_cast<Transfer *>(transfer)->confirmed = confirmed;
    }
    static void on_done(uint64_t, int32_t code, void *transfer) {
        static_cast<Transfer *>(transfer)->finish(code);
    }
};

Problem failed_transfer(const tav_addr_st &destination, int32_t code, uint64_t done) {
    const std::string who = address_text(destination);
    const std::string reached = done > 0 ? "; at least " + grouped(done) + " bytes had arrived" : "";
    const char *again = "send it again: ids are drawn anew each time";
    const std::tuple<int32_t, std::string, std::string> reasons[] = {
        {IPC_ERR_NOMEM, "the library has no memory for the transfer", "end other processes"},
        {IPC_ERR_FILE_ID, who + " is receiving a file of another sender under the same id", again},
        {IPC_ERR_FILE_CLOSED, who + " has a complete file of this id already", again},
        {IPC_ERR_IO, who + " cannot store the file",
         "make room in the receiver's /tmp, where unfinished files stay for 5 minutes; see its log"},
        {IPC_ERR_NOT_SUPPORTED, who + " accepts no files",
         "its module must open the endpoint with accept_files; tavctl recvfile DIR does"}};
    for (const auto &[known, what, remedy] : reasons)
        if (known == code) return Problem(what + reached, remedy);
    const Problem why = failed_exchange(destination, code);
    return Problem(why.what() + reached, why.remedy(), why.status());
}

// Reports what arrived. What the digest's thread read may differ from what the library read when the file was
// changed meanwhile.
void say_delivered(Console &out, Record &&record, const Transfer &transfer, int file, const struct stat &info,
                   const FileDigest &digest) {
    struct stat after {};
    const bool changed = fstat(file, &after) != 0 || after.st_size != info.st_size ||
                         after.st_mtim.tv_sec != info.st_mtim.tv_sec ||
                         after.st_mtim.tv_nsec != info.st_mtim.tv_nsec ||
                         digest.size != static_cast<uint64_t>(info.st_size);
    const double rate = static_cast<double>(digest.size) / transfer.took();
    record.add("seconds", transfer.took(), "rate", rate, "file_id", static_cast<uint32_t>(transfer.id),
               "changed", changed);
    if (changed)
        record.add("bytes", nullptr, "sha256", nullptr);
    else
        record.add("bytes", digest.size, "sha256", digest.sha256);
    const std::string pattern =
        std::string(changed ? "{to}: about " : "{to}: ") + grouped(digest.size) + " bytes delivered in " +
        time_text(transfer.took()) + ", " + bytes_text(rate) + "/s, file id {file_id}\n  " +
        (changed
             ? "the file changed meanwhile: what arrived may mix both versions; the receiver knows its size"
             : "sha256 {sha256}");
    out.say(record, pattern);
}

} // namespace

int send_file(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"));
    const std::string path = args.text("FILE"), name = fs::path(path).filename();
    const UniqueFd file = open_regular_file(path);
    struct stat info {};
    fstat(file.get(), &info);
    catch_interrupts();
    Transfer transfer(out, static_cast<uint64_t>(info.st_size));
    const Module module;
    transfer.begin = now_seconds();
    transfer.id = tav_ipc_file_start( // by the descriptor: the file that was looked at
        module, &destination, ("/proc/self/fd/" + std::to_string(file.get())).c_str(), name.c_str(),
        static_cast<uint32_t>(args.seconds("timeout") * 1000), 0, Transfer::on_progress, Transfer::on_done,
        &transfer);
    if (transfer.id == 0 && errno == EINVAL)
        throw Problem("the name of " + harmless(path) + " has control characters", "send a link to it");
    if (transfer.id == 0)
        throw system_problem("cannot send " + harmless(path),
                             "it needs one more descriptor, memory and /proc");
    std::atomic<bool> stop = false;
    std::future<FileDigest> background = std::async([&] { return digest_of(file.get(), stop); });
    const struct Stopper { // before the future waits for its thread
        std::atomic<bool> &stop;
        ~Stopper() { stop = true; }
    } stopper{stop};
    const Wait wait = run_until([&] {
        if (!transfer.ended && transfer.progress.due()) transfer.progress.show(transfer.confirmed);
        return transfer.ended;
    });
    if (wait == Wait::kInterrupted) {
        tav_ipc_file_cancel(module, transfer.id); // the receiver drops what it has
        throw Problem("interrupted when at least " + grouped(transfer.confirmed) + " bytes had arrived",
                      "send it again");
    }
    if (!transfer.ended) throw Problem("the event loop ended before the transfer did");
    if (transfer.code != 0) throw failed_transfer(destination, transfer.code, transfer.confirmed);
    const FileDigest digest = background.get();
    if (digest.error != 0)
        throw Problem("cannot read " + harmless(path) + " beyond " + grouped(digest.size) +
                      " bytes: " + strerror(digest.error) + "; what arrived ends there or before");
    say_delivered(out, Record("type", "file", "to", address_text(destination), "path", path), transfer,
                  file.get(), info, digest);
    return kSuccess;
}

} // namespace tavctl
