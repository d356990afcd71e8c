// tavctl sendfile: sends a whole file, with its progress and its digest.
#include <cmath>
#include <future>

#include "agent/agent.h"
#include "commands.h"
#include "module/module.h"
#include "tavipc/tav_ipc_file_ext.h"

namespace tavctl {
namespace {

// A transfer, and how far it is: shown on a terminal ten times a second, elsewhere every ten seconds.
class Transfer {
  public:
    Transfer(Console &out, uint64_t size) : out_(out), size_(static_cast<double>(size)) {}
    uint64_t confirmed = 0; // bytes that have arrived for sure
    bool ended = false;
    int32_t code = 0;
    double took_s = 0;

    void show() {
        const double now = now_seconds(), known = static_cast<double>(confirmed),
                     rate = known / (now - begin_);
        if (ended || now - shown_ < (out_.shows_progress() ? 0.1 : 10)) return;
        shown_ = now;
        std::string text = bytes_text(known) + " of " + bytes_text(size_);
        if (size_ > 0) text = std::to_string(static_cast<int>(100 * known / size_)) + " %  " + text;
        if (now - moved_ > 2)
            text += ", no confirmation for " + time_text(std::floor(now - moved_));
        else if (rate >= 1)
            text += ", " + bytes_text(rate) + "/s, " + time_text(std::ceil((size_ - known) / rate)) + " left";
        out_.shows_progress() ? out_.progress(text) : out_.tell(text);
    }
    static void on_progress(uint64_t, uint64_t confirmed, uint64_t, void *transfer) {
        auto &self = *static_cast<Transfer *>(transfer);
        self.confirmed = confirmed;
        self.moved_ = now_seconds();
    }
    static void on_end(uint64_t, int32_t code, void *transfer) {
        auto &self = *static_cast<Transfer *>(transfer);
        self.ended = true;
        self.code = code;
        self.took_s = now_seconds() - self.begin_;
    }

  private:
    Console &out_;
    const double size_; // bytes
    const double begin_ = now_seconds();
    double shown_ = begin_, moved_ = begin_;
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
void say_delivered(Console &out, Record &&record, const Transfer &transfer, uint32_t file_id, int file,
                   const struct stat &info, const FileDigest &digest) {
    struct stat after {};
    const bool changed = fstat(file, &after) != 0 || after.st_size != info.st_size ||
                         after.st_mtim.tv_sec != info.st_mtim.tv_sec ||
                         after.st_mtim.tv_nsec != info.st_mtim.tv_nsec ||
                         digest.size != static_cast<uint64_t>(info.st_size);
    const double rate = static_cast<double>(digest.size) / transfer.took_s;
    record.add("seconds", transfer.took_s, "rate", rate, "file_id", file_id, "changed", changed);
    record.add("bytes", changed ? std::nullopt : std::optional(digest.size));
    record.add("sha256", changed ? std::nullopt : std::optional(digest.sha256));
    const std::string pattern =
        std::string(changed ? "{to}: about " : "{to}: ") + grouped(digest.size) + " bytes delivered in " +
        time_text(transfer.took_s) + ", " + bytes_text(rate) + "/s, file id {file_id}\n  " +
        (changed
             ? "the file changed meanwhile: what arrived may mix both versions; the receiver knows its size"
             : "sha256 {sha256}");
    out.say(record, pattern);
}

} // namespace

int send_file(Console &out, const Args &args) {
    const tav_addr_st destination = parse_address(args.text("NAME"));
    const std::string path = args.text("FILE");
    const UniqueFd file = open_regular_file(path);
    struct stat info {};
    fstat(file.get(), &info);
    catch_interrupts();
    Transfer transfer(out, static_cast<uint64_t>(info.st_size));
    const Module module;
    const std::string name = fs::path(path).filename(), open = "/proc/self/fd/" + std::to_string(file.get());
    const bool named = name.size() <= TAV_IPC_FILE_NAME_MAX && name == one_line(name);
    const auto timeout_ms = static_cast<uint32_t>(args.seconds("timeout") * 1000);
    const uint64_t id = tav_ipc_file_start(module, &destination, open.c_str(), // the file that was looked at
                                           named ? name.c_str() : nullptr, timeout_ms, 0,
                                           Transfer::on_progress, Transfer::on_end, &transfer);
    if (id == 0)
        throw system_problem("the library cannot send the file", "it needs a descriptor: see ulimit -n");
    std::atomic<bool> stop = false;
    std::future<FileDigest> background = std::async([&] { return digest_of(file.get(), stop); });
    const struct Stopper { // before the future waits for its thread
        std::atomic<bool> &stop;
        ~Stopper() { stop = true; }
    } stopper{stop};
    if (!run_until([&] { return transfer.show(), transfer.ended; })) {
        tav_ipc_file_cancel(module, id); // tells the receiver
        tav_ipc_flush(module, kLastFlush_ms, nullptr);
        throw Problem("interrupted when at least " + grouped(transfer.confirmed) + " bytes had arrived",
                      "the receiver drops the unfinished file; send it again");
    }
    if (transfer.code < 0) throw failed_transfer(destination, transfer.code, transfer.confirmed);
    const FileDigest digest = background.get();
    if (digest.error != 0)
        throw Problem("cannot read " + harmless(path) + " beyond " + grouped(digest.size) +
                      " bytes: " + strerror(digest.error) + "; what arrived ends there or before");
    say_delivered(out, Record("type", "file", "to", address_text(destination), "path", path), transfer,
                  static_cast<uint32_t>(id), file.get(), info, digest);
    return kSuccess;
}

} // namespace tavctl
