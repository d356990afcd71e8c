// Whole files: stop-and-wait sending, and receiving into temporary files.
//
// A sender holds one FileSend: it sends a chunk with confirmation, reads the next one while the receiver is
// at work, and goes on from the confirmation; an empty chunk ends the file. Whatever code is not 0 ends the
// transfer, and then the endpoint may be gone: only a step with code 0 uses it.
//
// A receiver holds one ReceivedFile per file id in a process-wide table: open while it grows, complete once
// the empty chunk came (descriptor -1), removed with its temporary file by a sweep 300 seconds after its
// last data.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "common/facts.h"
#include "common/log.h"
#include "common/out_of_memory.h"
#include "ipc/exchanges.h"
#include "ipc/ipc_process.h"
#include "ipc/wire.h"

namespace tavipc {
namespace {

constexpr uint64_t kSweepPeriodMs = 60'000;
constexpr time_t kKeepSeconds = 300;
constexpr uint32_t kMostReceived = 65'536;

struct FileSend {
    tav_ipc_st *ipc;
    tav_addr_st *dest;
    FILE *stream; // null once the end was reached
    tav_ipc_status_cb done;
    void *user;
    int32_t timeout_s;
    int32_t file_id;
    bool ended;      // the empty chunk was sent
    uint32_t length; // of what was read ahead
    unsigned char chunk[kFragmentPayload];
};

struct ReceivedFile {
    int fd; // -1: complete
    char *path;
    tav_addr_st src;
    time_t last_seen;
};

void end_transfer(FileSend *transfer, int32_t result) {
    if (transfer->stream) std::fclose(transfer->stream);
    transfer->stream = nullptr;
    if (transfer->done) transfer->done(result, transfer->user);
    tav_addr_destroy(transfer->dest);
    std::free(transfer);
}

// Reads what the chunk lacks.
void read_on(FileSend *transfer) {
    transfer->length += static_cast<uint32_t>(std::fread(
        transfer->chunk + transfer->length, 1, sizeof transfer->chunk - transfer->length, transfer->stream));
}

// Reads the next chunk, an empty one behind the end of the file.
void read_ahead(FileSend *transfer) {
    transfer->length = 0;
    if (transfer->stream) read_on(transfer);
}

// The chunk is sent now: a short one gets what was appended since it was read, and is the last.
void complete_chunk(FileSend *transfer) {
    if (!transfer->stream || transfer->length == sizeof transfer->chunk) return;
    std::clearerr(transfer->stream);
    read_on(transfer);
    if (transfer->length == sizeof transfer->chunk) return;
    std::fclose(transfer->stream);
    transfer->stream = nullptr;
}

// Completion of every chunk, and the first step.
int ipc_file_send_step(int32_t code, void *argument) {
    auto *transfer = static_cast<FileSend *>(argument);
    if (code != IPC_OK) return end_transfer(transfer, code), 0;
    if (transfer->ended) return end_transfer(transfer, transfer->file_id), 0;
    complete_chunk(transfer);
    transfer->ended = transfer->length == 0;
    ipc_send_with_ack(transfer->ipc,
                      {transfer->dest, static_cast<uint32_t>(transfer->file_id), transfer->chunk,
                       transfer->length, IPC_FLAG_FILE, transfer->timeout_s},
                      ipc_file_send_step, transfer);
    if (!transfer->ended) read_ahead(transfer); // its completion comes later, whatever becomes of the chunk
    return 0;
}

void close_received(ReceivedFile *file) {
    if (file->fd < 0) return;
    ::close(std::exchange(file->fd, -1));
    --process_state().files_open;
}

void release_received(void *value) {
    auto *file = static_cast<ReceivedFile *>(value);
    close_received(file);
    ::unlink(file->path);
    std::free(file->path);
    std::free(file);
}

int expire_received(const void *key, uint32_t key_len, void *value, void *context) {
    const time_t now = *static_cast<const time_t *>(context);
    if (now - static_cast<const ReceivedFile *>(value)->last_seen > kKeepSeconds)
        xhash_delete(process_state().received_files, key, key_len);
    return 0;
}

void start_sweep();

void ipc_file_sweep(void *) {
    time_t now = time(nullptr);
    xhash_walk(process_state().received_files, &now, expire_received);
    start_sweep();
}

void start_sweep() {
    ProcessState &process = process_state();
    process.file_sweep_timer = cl_timer_start(kSweepPeriodMs, ipc_file_sweep, nullptr);
    process.file_sweep_due = cl_event_loop_now() + kSweepPeriodMs;
    process.file_sweep_thread = pthread_self();
}

// The loop that the sweep's timer was on may be gone: that of who receives now takes over.
void keep_sweeping() {
    ProcessState &process = process_state();
    if (process.file_sweep_timer && cl_event_loop_now() <= process.file_sweep_due + kSweepPeriodMs) return;
    // It may be late on this thread. Another thread's means nothing here.
    if (pthread_equal(process.file_sweep_thread, pthread_self())) cl_timer_stop(process.file_sweep_timer);
    start_sweep();
}

xhash_t *received_files() {
    ProcessState &process = process_state();
    if (!process.received_files) process.received_files = xhash_create(release_received, 0);
    if (!process.received_files) out_of_memory("ipc_file", __LINE__);
    keep_sweeping();
    return process.received_files;
}

ReceivedFile *find_received(xhash_t *files, uint32_t file_id) {
    void *found = nullptr;
    return xhash_search(files, &file_id, sizeof file_id, &found) == 0 ? static_cast<ReceivedFile *>(found)
                                                                      : nullptr;
}

// Peers choose the ids: a number of entries, and half of the descriptors that the process may have, is
// theirs.
bool may_receive_one_more(const xhash_t *files) {
    rlimit descriptors{};
    const bool known = ::getrlimit(RLIMIT_NOFILE, &descriptors) == 0;
    if (xhash_count(files) < kMostReceived &&
        (!known || process_state().files_open < descriptors.rlim_cur / 2))
        return true;
    TAV_LOG_LIMITED(2, "ipc_file", "too many files are being received, another one is refused, %u open",
                    process_state().files_open);
    return false;
}

// A new entry with its temporary file; null when that cannot be made.
ReceivedFile *create_received(xhash_t *files, uint32_t file_id, const tav_addr_st &src) {
    if (!may_receive_one_more(files)) return nullptr;
    MallocPtr<ReceivedFile> file(static_cast<ReceivedFile *>(std::calloc(1, sizeof(ReceivedFile))));
    if (!file) out_of_memory("ipc_file", __LINE__);
    char path[sizeof kReceivedFile];
    std::memcpy(path, kReceivedFile, sizeof path);
    file->fd = ::mkstemp(path);
    if (file->fd < 0) return nullptr;
    ++process_state().files_open;
    ::fcntl(file->fd, F_SETFD, FD_CLOEXEC);
    file->path = ::strdup(path);
    if (!file->path) out_of_memory("ipc_file", __LINE__);
    file->src = src;
    file->last_seen = time(nullptr);
    if (xhash_insert(files, &file_id, sizeof file_id, file.get()) != 0) out_of_memory("ipc_file", __LINE__);
    return file.release();
}

} // namespace
} // namespace tavipc

using namespace tavipc;

void tav_ipc_send_file(tav_ipc_st *ipc, const tav_addr_st *dest, const char *path, tav_ipc_status_cb callback,
                       void *user, int32_t timeout_s) noexcept {
    UseGuard guard(ipc, "tav_ipc_send_file");
    const auto refuse = [&](int32_t code) {
        if (callback) callback(code, user);
    };
    if (!ipc || !dest) return refuse(IPC_ERR_SENDTO);
    FILE *stream = path ? std::fopen(path, "rbe") : nullptr;
    if (!stream) return refuse(IPC_ERR_OPEN_FILE);
    std::setvbuf(stream, nullptr, _IONBF, 0); // chunks are read whole, a buffer in between would cut them
    auto *transfer = static_cast<FileSend *>(std::calloc(1, sizeof(FileSend)));
    if (!transfer) {
        std::fclose(stream);
        return refuse(IPC_ERR_NOMEM);
    }
    transfer->ipc = ipc;
    transfer->dest = tav_addr_dup(dest);
    transfer->stream = stream;
    transfer->done = callback;
    transfer->user = user;
    transfer->timeout_s = timeout_s;
    transfer->file_id = tav_ipc_get_random_file_id(dest->hostid);
    read_ahead(transfer);
    ipc_file_send_step(IPC_OK, transfer);
}

int32_t tav_ipc_get_random_file_id(uint32_t hostid) noexcept {
    Relaxed<bool> &seeded = process_state().file_ids_seeded;
    if (!seeded) {
        seeded = true;
        srand(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(time(nullptr)) ^
              static_cast<unsigned>(getppid()));
    }
    const int first = rand();
    const int second = rand();
    const auto now = static_cast<int>(time(nullptr));
    char text[256];
    const int length =
        str_snprintf(text, sizeof text, "%d.%d.%d.%d", static_cast<int>(hostid), now, second, first);
    const auto crc = static_cast<int32_t>(orlask_crc32(text, static_cast<uint32_t>(length)));
    if (crc == INT32_MIN) return INT32_MAX; // it has no positive counterpart
    return crc < 0 ? -crc : crc;
}

int32_t tav_ipc_save_file(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t file_id, const void *data,
                          uint32_t len) noexcept {
    if (!src || (!data && len > 0)) return IPC_ERR_IO;
    xhash_t *files = received_files();
    ReceivedFile *file = find_received(files, file_id);
    if (!file) file = create_received(files, file_id, *src);
    if (!file) return IPC_ERR_IO;
    if (tav_addr_cmp(src, &file->src) != 0) return IPC_ERR_FILE_ID;
    if (file->fd == -1) return IPC_ERR_FILE_CLOSED;
    if (len > 0) {
        file->last_seen = time(nullptr);
        return ::write(file->fd, data, len) == static_cast<ssize_t>(len) ? IPC_OK : IPC_ERR_IO;
    }
    close_received(file);
    char path[sizeof kReceivedFile]; // the callback may run the loop, and the sweep come by
    str_strlcpy(path, file->path, sizeof path);
    tav_ipc_emit_file(ipc, path);
    return IPC_OK;
}

void tav_ipc_emit_file(tav_ipc_st *ipc, const char *path) noexcept {
    if (ipc && ipc->file_recv) ipc->file_recv(ipc, path, ipc->file_recv_arg);
}

const char *tav_ipc_get_file_path(tav_ipc_st *, uint32_t file_id) noexcept {
    xhash_t *files = process_state().received_files;
    const ReceivedFile *file = files ? find_received(files, file_id) : nullptr;
    return file && file->fd == -1 ? file->path : nullptr;
}
