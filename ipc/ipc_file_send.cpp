// Sends whole files, stop and wait. One FileSend per transfer: it sends a chunk as a confirmed message, reads
// the next one while the receiver works, and sends that when the confirmation arrives. An empty chunk ends
// the file. Any code other than 0 ends the transfer, and the endpoint may be gone by then: only a step with
// code 0 uses it.
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "common/fork_mutex.h"
#include "common/relaxed.h"
#include "ipc/exchanges.h"
#include "ipc/ipc_file.h"
#include "ipc/random.h"

namespace tavipc {
namespace {

constinit std::mutex ids_mutex; // while it is held, no other lock is taken
[[maybe_unused]] const bool forks_wait = lock_during_forks<ids_mutex>();

// The ids that this process must not draw: a receiver would append a second file with the same id from the
// same endpoint to the first one. The generator does repeat itself: every fragmented message seeds it with
// the current millisecond. Transfers run on several threads.
class FileIds {
  public:
    // A new id (0 or positive), or the negative code that the transfer ends with.
    int32_t take(uint32_t hostid) noexcept;
    // The transfer ended. Its receiver may still keep the file.
    void end(int32_t id) noexcept;
    void clear() noexcept;

  private:
    struct Use {
        int32_t id;
        uint64_t until_ms; // of the loop clock; kUnderWay: not known yet
    };
    static constexpr uint64_t kUnderWay = UINT64_MAX;
    // A receiver releases a file at most 360 s after its last data. The last minute is for a chunk that the
    // delivery queue sends again after its transfer has timed out.
    static constexpr uint64_t kKeep_ms = uint64_t{300 + 60 + 60} * 1000;
    // Number of uses (128 KiB). Above it the use that ended first is forgotten. An id depends on the second
    // in which it was drawn, so an older one comes again only by chance.
    static constexpr size_t kMostKept = 8192;
    // Number of draws. It bounds the loop if all draws are the same.
    static constexpr int kMostDraws = 1000;

    bool in_use(int32_t id) const {
        return std::any_of(uses_.begin(), uses_.end(), [id](const Use &use) { return use.id == id; });
    }
    void forget(uint64_t now_ms);

    std::vector<Use> uses_; // ids_mutex guards it
};

void FileIds::forget(uint64_t now_ms) {
    std::erase_if(uses_, [now_ms](const Use &use) { return use.until_ms <= now_ms; });
    if (uses_.size() < kMostKept) return;
    const auto first = std::min_element(uses_.begin(), uses_.end(),
                                        [](const Use &a, const Use &b) { return a.until_ms < b.until_ms; });
    if (first->until_ms != kUnderWay) uses_.erase(first);
}

int32_t FileIds::take(uint32_t hostid) noexcept {
    try {
        for (int draws = 0; draws < kMostDraws; ++draws) {
            const int32_t id = tav_ipc_get_random_file_id(hostid);
            const std::lock_guard lock(ids_mutex);
            forget(cl_event_loop_now());
            if (in_use(id)) continue;
            uses_.push_back({id, kUnderWay});
            return id;
        }
    } catch (const std::bad_alloc &) {
        return IPC_ERR_NOMEM;
    }
    return IPC_ERR_FILE_ID;
}

void FileIds::end(int32_t id) noexcept {
    const std::lock_guard lock(ids_mutex);
    const auto use =
        std::find_if(uses_.begin(), uses_.end(), [id](const Use &candidate) { return candidate.id == id; });
    assert(use != uses_.end() && use->until_ms == kUnderWay);
    if (use != uses_.end()) use->until_ms = cl_event_loop_now() + kKeep_ms;
}

void FileIds::clear() noexcept {
    const std::lock_guard lock(ids_mutex);
    uses_.clear();
}

// Never destroyed: a transfer may end in an exit handler. Made when the library is loaded, too, because a
// local variable that another thread is just initialising would never be ready in a forked child.
alignas(FileIds) unsigned char ids_memory[sizeof(FileIds)];
FileIds &file_ids = *new (ids_memory) FileIds;

constinit Relaxed<pid_t> generator_seeded_by = 0; // a forked child seeds it again

struct FileSend : FileSource {
    tav_ipc_st *ipc;
    tav_addr_st dest;
    tav_ipc_status_cb done;
    void *user;
    int32_t timeout_s;
    int32_t file_id;
    bool ended; // the empty chunk was sent
};

void end_transfer(FileSend *ended, int32_t result) {
    const std::unique_ptr<FileSend> transfer(ended);
    transfer->stream.reset();
    end_file_id(transfer->file_id);
    if (transfer->done) transfer->done(result, transfer->user);
}

// First step of a transfer, and completion of every chunk.
int ipc_file_send_step(int32_t code, void *argument) {
    auto *transfer = static_cast<FileSend *>(argument);
    if (code != IPC_OK) return end_transfer(transfer, code), 0;
    if (transfer->ended) return end_transfer(transfer, transfer->file_id), 0;
    transfer->complete_chunk();
    transfer->ended = transfer->length == 0;
    ipc_send_with_ack(transfer->ipc,
                      {&transfer->dest, static_cast<uint32_t>(transfer->file_id), transfer->chunk,
                       transfer->length, IPC_FLAG_FILE, transfer->timeout_s},
                      ipc_file_send_step, transfer);
    // The chunk was copied, and its completion never runs inside the call.
    if (!transfer->ended) transfer->read_chunk();
    return 0;
}

// Fills the rest of the chunk.
void read_more(FileSource &source) {
    source.length += static_cast<uint32_t>(std::fread(
        source.chunk + source.length, 1, sizeof source.chunk - source.length, source.stream.get()));
}

} // namespace

// The caller chose the path, so a FIFO is allowed. Opening and reading one waits for its writer.
FilePtr FileSource::open(const char *path) {
    FilePtr stream(std::fopen(path, "rbe"));
    if (stream) std::setvbuf(stream.get(), nullptr, _IONBF, 0); // fread then fills a chunk with one read
    return stream;
}

void FileSource::read_chunk() {
    length = 0;
    if (stream) read_more(*this);
}

void FileSource::complete_chunk() {
    if (!stream || length == sizeof chunk) return;
    std::clearerr(stream.get());
    read_more(*this);
    if (length < sizeof chunk) stream.reset();
}

int32_t take_file_id(uint32_t hostid) { return file_ids.take(hostid); }
void end_file_id(int32_t id) { file_ids.end(id); }

void reset_file_ids() {
    file_ids.clear();
    generator_seeded_by = 0;
}

} // namespace tavipc

using namespace tavipc;

void tav_ipc_send_file(tav_ipc_st *ipc, const tav_addr_st *dest, const char *path, tav_ipc_status_cb callback,
                       void *user, int32_t timeout_s) noexcept {
    UseGuard guard(ipc, "tav_ipc_send_file");
    const auto refuse = [&](int32_t code) {
        if (callback) callback(code, user);
    };
    if (!ipc || !dest) return refuse(IPC_ERR_SENDTO);
    FilePtr stream = path ? FileSource::open(path) : nullptr;
    if (!stream) return refuse(IPC_ERR_OPEN_FILE);
    std::unique_ptr<FileSend> transfer(new (std::nothrow) FileSend);
    const int32_t file_id = transfer ? take_file_id(dest->hostid) : int32_t{IPC_ERR_NOMEM};
    if (file_id < 0) return stream.reset(), refuse(file_id);
    transfer->ipc = ipc;
    transfer->dest = *dest;
    transfer->stream = std::move(stream);
    transfer->done = callback;
    transfer->user = user;
    transfer->timeout_s = timeout_s;
    transfer->file_id = file_id;
    transfer->ended = false;
    transfer->read_chunk();
    ipc_file_send_step(IPC_OK, transfer.release());
}

int32_t tav_ipc_get_random_file_id(uint32_t hostid) noexcept {
    if (generator_seeded_by != getpid()) {
        generator_seeded_by = getpid();
        seed_random(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(time(nullptr)) ^
                    static_cast<unsigned>(getppid()));
    }
    const int first = draw_random();
    const int second = draw_random();
    const auto now_s = static_cast<int>(time(nullptr));
    char text[256]; // bytes; four numbers of at most 11 characters
    const int length =
        str_snprintf(text, sizeof text, "%d.%d.%d.%d", static_cast<int>(hostid), now_s, second, first);
    const auto crc = static_cast<int32_t>(orlask_crc32(text, static_cast<uint32_t>(length)));
    if (crc == INT32_MIN) return INT32_MAX; // it has no positive counterpart
    return crc < 0 ? -crc : crc;
}
