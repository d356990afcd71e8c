#include "ipc/stats_file.h"

#include <algorithm>
#include <atomic>
#include <bitset>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/keep_errno.h"
#include "common/owned.h"
#include "common/unique_fd.h"

namespace tavipc {
namespace {

constexpr uint32_t kRecords = 512;   // several times the endpoints and destinations of a busy module
constexpr size_t kHeaderBytes = 64;  // keeps the records aligned
constexpr size_t kAllocation = 4096; // bytes: a page of the common sizes, or a part of one
constexpr int kCreateAttempts = 3;   // other processes may remove the new file while it is not locked
constexpr mode_t kFileMode = 0644; // only the owner writes: a truncated file would end this process by SIGBUS
constexpr size_t kPathBytes = 108; // as an address of a socket
constexpr size_t kRecordBytes = sizeof(tav_ipc_stats_record_st);
constexpr size_t kFileBytes = kHeaderBytes + kRecords * kRecordBytes;

static_assert(sizeof(tav_ipc_stats_file_st) <= kHeaderBytes);
static_assert(offsetof(tav_ipc_stats_record_st, values) == 64 && kRecordBytes % 64 == 0);
static_assert(int{TAV_IPC_STATS_COUNT} <= int{TAV_IPC_STATS_MAX});

// The file of this process. g_mutex guards it.
struct File {
    unsigned char *base = nullptr; // null: there is none
    int fd = -1;                   // holds the lock
    struct stat identity {};
    char path[kPathBytes] = {};
    size_t allocated = 0; // bytes that the file system has given
    uint32_t highest = 0; // records that were ever used
    std::bitset<kRecords> used{};

    tav_ipc_stats_file_st &header() const { return *reinterpret_cast<tav_ipc_stats_file_st *>(base); }
    tav_ipc_stats_record_st *record(size_t number) const {
        return reinterpret_cast<tav_ipc_stats_record_st *>(base + kHeaderBytes + number * kRecordBytes);
    }
    // Of one of its records; UINT32_MAX of another.
    uint32_t number_of(const tav_ipc_stats_record_st *record) const {
        const auto at = reinterpret_cast<uintptr_t>(record), begin = reinterpret_cast<uintptr_t>(base);
        if (!base || at < begin || at >= begin + kFileBytes) return UINT32_MAX;
        return static_cast<uint32_t>((at - begin - kHeaderBytes) / kRecordBytes);
    }
};

constinit std::mutex g_mutex;
constinit File g_file;
constinit bool g_in_memory = false;

bool is_same(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether the path still leads to the file.
bool is_at(const struct stat &identity, const char *path) {
    struct stat there {};
    return ::lstat(path, &there) == 0 && is_same(identity, there);
}

// Whether the descriptor is still the file's: the application may have closed all descriptors.
bool owns_descriptor() {
    struct stat now {};
    if (::fstat(g_file.fd, &now) != 0) return errno != EBADF;
    return is_same(now, g_file.identity);
}

uint64_t own_start_time() {
    const FilePtr file(std::fopen("/proc/self/stat", "re"));
    char text[1024] = {};
    if (!file || !std::fgets(text, sizeof text, file.get())) return 0;
    const char *field = std::strrchr(text, ')'); // the end of field 2, which may hold anything
    for (int number = 2; field && number < 22; ++number) field = std::strchr(field + 1, ' ');
    return field ? std::strtoull(field, nullptr, 10) : 0;
}

uint64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

// --- the file

// A write over this limit would end the process by a signal.
bool size_allowed() {
    rlimit limit{};
    return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur >= kFileBytes;
}

// Gets space for all bytes before end. Else a write to the mapping could end the process. A write reserves
// the space, but most file systems choose the blocks only when they write them to the disk, half a minute
// later. A file that is gone by then never had any. posix_fallocate would take blocks at once, and to free
// them costs some milliseconds in the close.
bool allocate(size_t end) {
    static constinit const unsigned char zeros[kAllocation] = {};
    if (end <= g_file.allocated) return true;
    if (!owns_descriptor() || !size_allowed()) return false;
    while (g_file.allocated < end) {
        const size_t size = std::min(kAllocation, kFileBytes - g_file.allocated);
        ssize_t written;
        do written = ::pwrite(g_file.fd, zeros, size, static_cast<off_t>(g_file.allocated));
        while (written < 0 && errno == EINTR);
        if (written != static_cast<ssize_t>(size)) return false;
        g_file.allocated += size;
    }
    return true;
}

// Takes the mapping, the lock and the descriptor away. The file stays where it is.
void let_go() {
    if (g_file.base) ::munmap(g_file.base, kFileBytes);
    if (owns_descriptor()) ::close(g_file.fd);
    g_file = {};
}

// Makes an empty file at path and locks it.
UniqueFd create_locked(const char *path) {
    for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
        UniqueFd fd(::open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
        if (!fd && errno == EEXIST && remove_stale_stats(path)) continue;
        if (!fd) return fd;
        struct stat identity {};
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 || ::fstat(fd.get(), &identity) != 0) continue;
        if (is_at(identity, path)) return fd;
    }
    return UniqueFd();
}

void write_header() {
    tav_ipc_stats_file_st &header = g_file.header();
    header.version = 1;
    header.header_size = kHeaderBytes;
    header.record_size = kRecordBytes;
    header.record_count = kRecords;
    header.value_count = TAV_IPC_STATS_COUNT;
    header.pid = static_cast<uint32_t>(getpid());
    header.started = own_start_time();
    std::atomic_thread_fence(std::memory_order_release);
    std::memcpy(header.magic, "TAVSTAT", sizeof header.magic);
}

bool map_file(UniqueFd fd, const char *path) {
    if (!fd || std::strlen(path) >= kPathBytes || ::fstat(fd.get(), &g_file.identity) != 0) return false;
    std::strcpy(g_file.path, path);
    g_file.fd = fd.release();
    if (::ftruncate(g_file.fd, kFileBytes) != 0 || !allocate(kHeaderBytes)) return false;
    void *base = ::mmap(nullptr, kFileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, g_file.fd, 0);
    if (base == MAP_FAILED) return false;
    g_file.base = static_cast<unsigned char *>(base);
    write_header();
    return true;
}

void remove_file() {
    if (is_at(g_file.identity, g_file.path)) ::unlink(g_file.path);
    let_go();
}

// The end of the process. The mapping stays: other threads may still count.
struct AtExit {
    ~AtExit() {
        const std::lock_guard lock(g_mutex);
        const bool own = g_file.base && g_file.header().pid == static_cast<uint32_t>(getpid());
        if (own && is_at(g_file.identity, g_file.path)) ::unlink(g_file.path);
    }
} g_at_exit;

// --- fork

// Puts copies of the used records in the place of the mapping, in a forked child. Without memory for copies
// the records are zeros: no other process can see them.
void make_private() {
    constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    const size_t used = kHeaderBytes + g_file.highest * kRecordBytes;
    void *copy = ::mmap(nullptr, kFileBytes, PROT_READ | PROT_WRITE, kFlags, -1, 0);
    if (copy != MAP_FAILED) {
        std::memcpy(copy, g_file.base, used); // beyond them the file may have holes: reading them costs space
        if (::mremap(copy, kFileBytes, kFileBytes, MREMAP_MAYMOVE | MREMAP_FIXED, g_file.base) != MAP_FAILED)
            return;
    }
    (void)::mmap(g_file.base, kFileBytes, PROT_READ | PROT_WRITE, kFlags | MAP_FIXED, -1, 0);
}

void before_fork() { g_mutex.lock(); }
void after_fork_in_parent() { g_mutex.unlock(); }
void after_fork_in_child() {
    if (g_file.base) {
        const KeepErrno keep;
        make_private();
        if (owns_descriptor()) ::close(g_file.fd);
        g_file = {}; // the copies stay mapped: accounts of the parent's endpoints refer to them
    }
    g_mutex.unlock();
}

// When the library is loaded: a fork that begins before the handlers are known could take a locked mutex into
// the child.
const bool g_watches_forks = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;

// Called under g_mutex.
bool need_file(const char *path) {
    if (g_file.base) return true;
    if (!g_watches_forks || !size_allowed()) return false;
    if (map_file(create_locked(path), path)) return true;
    if (g_file.fd >= 0) remove_file();
    return false;
}

// --- records

tav_ipc_stats_record_st *record_of(const Account &account) {
    return reinterpret_cast<tav_ipc_stats_record_st *>(reinterpret_cast<unsigned char *>(account.values) -
                                                       offsetof(tav_ipc_stats_record_st, values));
}

void fill(tav_ipc_stats_record_st &record, const AccountLabel &label, uint32_t owner) {
    ++record.generation;
    record.owner = owner;
    record.location = label.location;
    std::memset(record.name, 0, sizeof record.name);
    std::memcpy(record.name, label.name, strnlen(label.name, sizeof record.name - 1));
    record.since_ms = now_ms();
    std::memset(record.values, 0, sizeof record.values);
    std::atomic_thread_fence(std::memory_order_release);
    std::atomic_ref(record.kind).store(label.kind, std::memory_order_release);
}

// Null when none is free, or the file system is full. Called under g_mutex.
tav_ipc_stats_record_st *take_record(const AccountLabel &label) {
    size_t number = 0;
    while (number < kRecords && g_file.used[number]) ++number;
    if (number == kRecords || !allocate(kHeaderBytes + (number + 1) * kRecordBytes)) return nullptr;
    g_file.used.set(number);
    g_file.highest = std::max(g_file.highest, static_cast<uint32_t>(number) + 1);
    tav_ipc_stats_record_st *record = g_file.record(number);
    fill(*record, label, label.kind == TAV_IPC_STATS_ENDPOINT ? static_cast<uint32_t>(number) : label.owner);
    return record;
}

tav_ipc_stats_record_st *take_record_in_file(const AccountLabel &label, const char *path) {
    const KeepErrno keep;
    const std::lock_guard lock(g_mutex);
    const bool is_endpoint = label.kind == TAV_IPC_STATS_ENDPOINT;
    if (is_endpoint && (g_in_memory || !path || !need_file(path))) return nullptr;
    const bool belongs = is_endpoint || label.owner != UINT32_MAX; // of an endpoint that is in the file
    tav_ipc_stats_record_st *record = g_file.base && belongs ? take_record(label) : nullptr;
    if (g_file.base && !record) ++g_file.header().hidden;
    return record;
}

} // namespace

bool open_account(Account &account, const AccountLabel &label, const char *path) {
    auto *record = take_record_in_file(label, path);
    const bool own_memory = !record;
    if (!record) record = static_cast<tav_ipc_stats_record_st *>(std::calloc(1, kRecordBytes));
    if (!record) return false;
    account = {record->values, 0, true, own_memory};
    return true;
}

void close_account(Account &account) {
    alignas(8) static constinit uint64_t lost_counts[TAV_IPC_STATS_MAX];
    if (!account.is_open) return;
    tav_ipc_stats_record_st *record = record_of(account);
    const bool own_memory = account.own_memory;
    account = {lost_counts, 0, false, false}; // frames that still have a datagram in hand count there
    if (own_memory) return std::free(record);
    const KeepErrno keep;
    const std::lock_guard lock(g_mutex);
    const uint32_t number = g_file.number_of(record);
    if (number == UINT32_MAX) return; // a copy of the record of this process's parent
    std::atomic_ref(record->kind).store(TAV_IPC_STATS_FREE, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    ++record->generation;
    g_file.used.reset(number);
    if (g_file.used.none()) remove_file();
}

uint32_t account_number(const Account &account) {
    const std::lock_guard lock(g_mutex);
    return account.is_open ? g_file.number_of(record_of(account)) : UINT32_MAX;
}

bool remove_stale_stats(const char *path) {
    const UniqueFd fd(::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat identity {};
    return fd && ::fstat(fd.get(), &identity) == 0 && S_ISREG(identity.st_mode) &&
           ::flock(fd.get(), LOCK_EX | LOCK_NB) == 0 && is_at(identity, path) && ::unlink(path) == 0;
}

void keep_stats_in_memory(bool on) {
    const std::lock_guard lock(g_mutex);
    g_in_memory = on;
}

} // namespace tavipc
