// Receives whole files: one ReceivedFile per file id in a table of the process.
//
// A file is open while it grows, then complete after the empty chunk, or dropped: its record then stays
// without a temporary file, so that further chunks do not begin a file without its beginning. The sweep
// releases it 300 seconds after its last data, complete or not, and removes its temporary file. One thread
// drives all endpoints that accept files, so nothing here is locked.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

#include "common/log.h"
#include "common/out_of_memory.h"
#include "common/owned.h"
#include "common/relaxed.h"
#include "ipc/endpoint.h"
#include "ipc/ipc_file.h"
#include "ipc/received_file.h"

namespace tavipc {
namespace {

constexpr uint64_t kSweepPeriod_ms = 60'000; // a file is removed at most this long after kKeep_s
constexpr time_t kKeep_s = 300;              // after the last data: time for the application to take the file
// Number of files. Peers choose the ids, so the table needs a bound: it takes about 10 MB.
constexpr uint32_t kMostReceived = 65'536;
// A search for files that were taken away looks at 65,536 paths, which takes 0.1 to 0.2 s. Done at most once
// in this time, it costs at most 4 % of it.
constexpr uint64_t kLookPeriod_ms = 5000;

struct Received {
    xhash_t *files = nullptr;  // file id -> ReceivedFile; exists from the first chunk on
    uint32_t open = 0;         // files that hold a descriptor
    uint64_t last_look_ms = 0; // of the loop clock: last search for files that were taken away
};
constinit Received received;

// The timer belongs to this thread's loop, and the loop may be released without notice. So the timer only
// serves while nothing arrives: a chunk that arrives after the due time runs the sweep itself.
struct Sweep {
    cl_timer_t timer = 0;
    uint64_t due_ms = 0; // of the loop clock
};
thread_local constinit Sweep sweep;
// The thread that received last. The timer of another one, perhaps still running, does nothing.
constinit Relaxed<const Sweep *> sweeper = nullptr;

void close_file(ReceivedFile &file) {
    if (!file.is_open()) return;
    file.close();
    assert(received.open > 0);
    --received.open;
}

void release_file(void *value) {
    const std::unique_ptr<ReceivedFile> file(static_cast<ReceivedFile *>(value));
    close_file(*file);
    if (!file->dropped) file->remove();
}

// False if the file is not open.
bool drop_file(ReceivedFile &file) {
    if (!file.is_open()) return false;
    close_file(file);
    file.remove();
    file.dropped = true;
    return true;
}

int release_if_old(const void *key, uint32_t key_len, void *value, void *context) {
    const time_t now_s = *static_cast<const time_t *>(context);
    if (now_s - static_cast<const ReceivedFile *>(value)->last_seen_s > kKeep_s)
        xhash_delete(received.files, key, key_len);
    return 0;
}

void ipc_file_sweep(void *);

void arm_sweep(uint64_t delay_ms) {
    cl_timer_stop(sweep.timer); // late, or stale because its loop is gone
    sweep.timer = cl_timer_start(delay_ms, ipc_file_sweep, nullptr);
}

void sweep_files() {
    sweeper = &sweep;
    time_t now_s = time(nullptr);
    xhash_walk(received.files, &now_s, release_if_old);
    sweep.due_ms = cl_event_loop_now() + kSweepPeriod_ms;
    arm_sweep(kSweepPeriod_ms);
}

void ipc_file_sweep(void *) {
    sweep.timer = 0;
    if (sweeper == &sweep) sweep_files();
}

void keep_sweeping() {
    if (sweeper != &sweep || cl_event_loop_now() > sweep.due_ms)
        sweep_files();
    else if (!sweep.timer) // could not be started
        arm_sweep(kSweepPeriod_ms);
}

// The table, created on first use.
xhash_t *received_files() {
    if (!received.files) received.files = xhash_create(release_file, 0);
    if (!received.files) out_of_memory("ipc_file", __LINE__);
    keep_sweeping();
    return received.files;
}

ReceivedFile *find_file(xhash_t *files, uint32_t file_id) {
    void *found = nullptr;
    return xhash_search(files, &file_id, sizeof file_id, &found) == 0 ? static_cast<ReceivedFile *>(found)
                                                                      : nullptr;
}

int release_if_taken(const void *key, uint32_t key_len, void *value, void *) {
    const auto *file = static_cast<const ReceivedFile *>(value);
    struct stat status {};
    if (!file->is_open() && ::lstat(file->path(), &status) != 0 && errno == ENOENT)
        xhash_delete(received.files, key, key_len);
    return 0;
}

// The table is full. Files that their owner moved or removed do not count.
void release_taken_files() {
    const uint64_t now_ms = cl_event_loop_now();
    if (now_ms - received.last_look_ms < kLookPeriod_ms) return;
    received.last_look_ms = now_ms;
    xhash_walk(received.files, nullptr, release_if_taken);
}

// Peers get at most half of the descriptors that the process may open.
bool may_receive_one_more() {
    if (xhash_count(received.files) >= kMostReceived) release_taken_files();
    rlimit descriptors{};
    const bool limited = ::getrlimit(RLIMIT_NOFILE, &descriptors) == 0;
    if (xhash_count(received.files) < kMostReceived && (!limited || received.open < descriptors.rlim_cur / 2))
        return true;
    TAV_LOG_LIMITED(2, "ipc_file", "too many files are being received, another one is refused, %u open",
                    received.open);
    return false;
}

// A new entry with its temporary file; null when the file cannot be created.
ReceivedFile *create_file(uint32_t file_id, const tav_addr_st &src) {
    if (!may_receive_one_more()) return nullptr;
    std::unique_ptr<ReceivedFile> file(new (std::nothrow) ReceivedFile);
    if (!file) out_of_memory("ipc_file", __LINE__);
    if (!file->create()) return nullptr;
    ++received.open;
    file->src = src;
    file->last_seen_s = time(nullptr);
    if (xhash_insert(received.files, &file_id, sizeof file_id, file.get()) != 0)
        out_of_memory("ipc_file", __LINE__);
    return file.release();
}

// The entry of the id; one is made for a file that is new. An error if it cannot take more from this source.
int32_t open_entry(uint32_t file_id, const tav_addr_st &src, ReceivedFile *&file) {
    file = find_file(received_files(), file_id);
    if (!file) file = create_file(file_id, src);
    if (!file) return IPC_ERR_IO;
    if (tav_addr_cmp(&src, &file->src) != 0) return IPC_ERR_FILE_ID;
    return file->is_open() ? IPC_OK : IPC_ERR_FILE_CLOSED;
}

// What a callback gets: it may run the loop, and so the sweep, or drop the file.
struct Report {
    Report(uint32_t file_id, const ReceivedFile &file)
        : info{file.src, file_id, name, path, file.received(), file.announced} {
        std::strcpy(path, file.path());
        std::strcpy(name, file.name ? file.name.get() : "");
    }
    char path[ReceivedFile::kPathSize];
    char name[TAV_IPC_FILE_NAME_MAX + 1];
    const tav_ipc_file_st info;
};

void complete_file(tav_ipc_st *ipc, uint32_t file_id, ReceivedFile &file) {
    close_file(file);
    const Report report(file_id, file);
    if (ipc && ipc->on_file.complete)
        ipc->on_file.complete(ipc, &report.info, ipc->on_file.user);
    else
        tav_ipc_emit_file(ipc, report.path);
}

// A chunk was written. Returns its code: the callback may have dropped the file.
int32_t report_progress(tav_ipc_st *ipc, uint32_t file_id, const ReceivedFile &file) {
    if (!ipc || !ipc->on_file.progress) return IPC_OK;
    const Report report(file_id, file);
    ipc->on_file.progress(ipc, &report.info, ipc->on_file.user);
    const ReceivedFile *left = find_file(received.files, file_id);
    return left && !left->dropped ? IPC_OK : IPC_ERR_FILE_CLOSED;
}

int drop_if_open(const void *, uint32_t, void *value, void *count) {
    *static_cast<uint32_t *>(count) += drop_file(*static_cast<ReceivedFile *>(value));
    return 0;
}

} // namespace

bool is_announceable(std::string_view name) {
    if (name.empty() || name.size() > TAV_IPC_FILE_NAME_MAX || name == "." || name == "..") return false;
    return std::none_of(name.begin(), name.end(),
                        [](unsigned char byte) { return byte == '/' || byte < 0x20 || byte == 0x7F; });
}

int32_t receive_announcement(const tav_addr_st &src, uint32_t file_id, const void *payload, uint32_t size,
                             bool accepts_files) {
    FileAnnouncement head{};
    if (size >= sizeof head) std::memcpy(&head, payload, sizeof head);
    if (std::memcmp(head.mark, kFileMark, sizeof kFileMark) != 0) return IPC_OK; // a probe like any other
    if (!accepts_files) return IPC_ERR_NOT_SUPPORTED;
    if (head.kind == kWithdraws) {
        ReceivedFile *file = find_file(received_files(), file_id);
        if (file && tav_addr_cmp(&src, &file->src) == 0) drop_file(*file);
    }
    if (head.kind != kAnnounces) return IPC_OK;
    ReceivedFile *file = nullptr;
    if (const int32_t error = open_entry(file_id, src, file)) return error;
    const std::string_view name(static_cast<const char *>(payload) + sizeof head, size - sizeof head);
    if (is_announceable(name)) file->name.reset(strndup(name.data(), name.size()));
    file->announced = head.size;
    return IPC_OK;
}

void resume_file_sweep() {
    if (!received.files || xhash_count(received.files) == 0) return;
    const uint64_t now_ms = cl_event_loop_now();
    if (sweeper == &sweep && now_ms <= sweep.due_ms)
        arm_sweep(sweep.due_ms - now_ms);
    else
        sweep_files();
}

void reset_received_files() {
    xhash_destroy(std::exchange(received.files, nullptr));
    assert(received.open == 0);
    received = {};
    cl_timer_stop(sweep.timer);
    sweep = {};
    sweeper = nullptr;
}

} // namespace tavipc

using namespace tavipc;

int32_t tav_ipc_save_file(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t file_id, const void *data,
                          uint32_t len) noexcept {
    if (!src || (!data && len > 0)) return IPC_ERR_IO;
    ReceivedFile *file = nullptr;
    if (const int32_t error = open_entry(file_id, *src, file)) return error;
    if (len == 0) return complete_file(ipc, file_id, *file), IPC_OK;
    file->last_seen_s = time(nullptr);
    if (!file->append(data, len)) return IPC_ERR_IO;
    return report_progress(ipc, file_id, *file);
}

void tav_ipc_emit_file(tav_ipc_st *ipc, const char *path) noexcept {
    if (ipc && ipc->file_recv) ipc->file_recv(ipc, path, ipc->file_recv_arg);
}

const char *tav_ipc_get_file_path(tav_ipc_st *, uint32_t file_id) noexcept {
    const ReceivedFile *file = received.files ? find_file(received.files, file_id) : nullptr;
    return file && !file->is_open() && !file->dropped ? file->path() : nullptr;
}

int tav_ipc_on_file(tav_ipc_st *ipc, tav_ipc_file_event_cb complete, tav_ipc_file_event_cb progress,
                    void *user) noexcept {
    if (!ipc) return errno = EINVAL, -1;
    ipc->on_file = complete ? FileCallbacks{complete, progress, user} : FileCallbacks{};
    return 0;
}

int tav_ipc_file_drop(uint32_t file_id) noexcept {
    ReceivedFile *file = received.files ? find_file(received.files, file_id) : nullptr;
    return file && drop_file(*file) ? 0 : (errno = ENOENT, -1);
}

uint32_t tav_ipc_file_drop_unfinished() noexcept {
    uint32_t count = 0;
    if (received.files) xhash_walk(received.files, &count, drop_if_open);
    return count;
}
