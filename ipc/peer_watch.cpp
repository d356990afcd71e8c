#include "ipc/peer_watch.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <new>
#include <sys/stat.h>
#include <utility>

#include "common/keep_errno.h"
#include "common/relaxed.h"
#include "ipc/directory_watch.h"
#include "ipc/socket_directory.h"
#include "ipc/wire.h"
#include "tavipc/tav_ipc_watch.h"

namespace tavipc {

namespace {

constexpr uint64_t kPass_ms = 1000; // promised in tav_ipc_watch.h
// bind() makes the file some microseconds before connections reach the socket.
constexpr uint64_t kBinding_ms = 10;

struct FileIdentity {
    uint64_t inode = 0; // 0: there is no socket, or it cannot be examined
    int64_t born_s = 0;
    uint32_t born_ns = 0;
    bool operator==(const FileIdentity &) const = default;
};

FileIdentity identify(int32_t location, const char *name) {
    char path[sizeof(sockaddr_un)];
    struct statx found {};
    if (!socket_path(path, sizeof path, location, name) ||
        ::statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_INO | STATX_CTIME | STATX_BTIME,
                &found) != 0 ||
        !S_ISSOCK(found.stx_mode))
        return {};
    const auto &born = found.stx_mask & STATX_BTIME ? found.stx_btime : found.stx_ctime;
    return {found.stx_ino, born.tv_sec, born.tv_nsec};
}

struct Watch {
    char name[TAV_IPC_NAME_SIZE];
    tav_ipc_watch_cb callback;
    void *user;
    Presence state = Presence::kUnknown; // as last reported to the callback
    FileIdentity socket{};               // of the peer that is present
    bool changed = false;                // since the last pass: the directory reported the name
    bool removed = false;                // and that its file was removed
};

} // namespace

class PeerWatches {
  public:
    explicit PeerWatches(tav_ipc_st *ipc) noexcept : ipc_(ipc) { listener_.start(ipc->location); }
    ~PeerWatches() { cl_timer_stop(timer_); }
    PeerWatches(const PeerWatches &) = delete;

    uint64_t add(const char *name, tav_ipc_watch_cb callback, void *user); // may throw bad_alloc
    bool remove(uint64_t id) noexcept { return watches_.erase(id) > 0; }
    bool empty() const noexcept { return watches_.empty(); }

  private:
    static void on_change(void *self, const char *name, bool removed) noexcept;
    static void pass(void *self) noexcept;
    bool schedule(uint64_t delay_ms) noexcept;
    int look(Watch &watch) noexcept;

    tav_ipc_st *ipc_;
    std::map<uint64_t, Watch> watches_;
    cl_timer_t timer_ = 0;
    uint64_t due_ms_ = 0; // of the timer
    DirectoryListener listener_{DirectoryListener::Interest::kFiles, on_change, this};
};

namespace {

constexpr int kNoEvent = -1;

int event_between(Presence before, Presence now, bool other_socket) {
    if (now == Presence::kUnknown) return kNoEvent;
    if (before != now) return now == Presence::kPresent ? TAV_IPC_WATCH_APPEARED : TAV_IPC_WATCH_WENT;
    return now == Presence::kPresent && other_socket ? TAV_IPC_WATCH_REPLACED : kNoEvent;
}

} // namespace

// Makes the timer due in delay_ms, unless it is due before.
bool PeerWatches::schedule(uint64_t delay_ms) noexcept {
    const uint64_t due_ms = cl_event_loop_now() + delay_ms;
    if (timer_ && due_ms_ <= due_ms) return true;
    cl_timer_stop(timer_);
    timer_ = cl_timer_start(delay_ms, pass, this);
    due_ms_ = due_ms;
    return timer_ != 0;
}

uint64_t PeerWatches::add(const char *name, tav_ipc_watch_cb callback, void *user) {
    static constinit Relaxed<uint64_t> last_id = 0;
    const uint64_t id = ++last_id;
    Watch watch{{}, callback, user};
    std::strcpy(watch.name, name);
    watches_.emplace(id, watch);
    if (schedule(0)) return id;
    watches_.erase(id);
    throw std::bad_alloc();
}

void PeerWatches::on_change(void *self, const char *name, bool removed) noexcept {
    auto &watches = *static_cast<PeerWatches *>(self);
    for (auto &[id, watch] : watches.watches_) {
        if (name && std::strcmp(name, watch.name) != 0) continue;
        watch.changed = true;
        watch.removed = watch.removed || removed;
        watches.schedule(0);
    }
}

// Brings the watch up to date. Returns what is to be reported, or kNoEvent.
int PeerWatches::look(Watch &watch) noexcept {
    const FileIdentity socket = identify(ipc_->location, watch.name);
    const Presence now = look_for_peer(ipc_->location, watch.name);
    const bool changed = std::exchange(watch.changed, false);
    const bool removed = std::exchange(watch.removed, false);
    if (now == Presence::kAbsent && changed && socket != FileIdentity{}) schedule(kBinding_ms);
    const bool known = socket != FileIdentity{} && watch.socket != FileIdentity{};
    const int event = event_between(watch.state, now, removed || (known && socket != watch.socket));
    if (now != Presence::kUnknown) watch.state = now;
    if (now == Presence::kPresent && socket != FileIdentity{}) watch.socket = socket;
    return event;
}

// A callback may end watches, start some, run the loop, or destroy the endpoint.
void PeerWatches::pass(void *self) noexcept {
    auto *watches = static_cast<PeerWatches *>(self);
    tav_ipc_st *ipc = watches->ipc_;
    const EndpointPin pin(ipc);
    watches->timer_ = 0;
    watches->schedule(kPass_ms);
    watches->listener_.catch_up();
    // Watches that callbacks start have larger ids. They wait for the next pass, so that the loop turns.
    const uint64_t newest = watches->watches_.empty() ? 0 : watches->watches_.rbegin()->first;
    for (uint64_t last = 0; ipc->peer_watches == watches;) {
        const auto next = watches->watches_.upper_bound(last);
        if (next == watches->watches_.end() || next->first > newest) return;
        last = next->first;
        const int event = watches->look(next->second);
        const Watch watch = next->second;
        if (event != kNoEvent) watch.callback(last, event, watch.name, watch.user);
    }
}

void close_peer_watches(tav_ipc_st *ipc) noexcept { delete std::exchange(ipc->peer_watches, nullptr); }

} // namespace tavipc

using namespace tavipc;

uint64_t tav_ipc_watch(tav_ipc_st *ipc, const char *name, tav_ipc_watch_cb callback, void *user) noexcept
    try {
    if (!ipc || !name || !callback || !is_file_name(name) || std::strlen(name) > TAV_IPC_NAME_MAX)
        return errno = EINVAL, 0;
    if (ipc->closed) return errno = ESHUTDOWN, 0;
    UseGuard guard(ipc, "tav_ipc_watch");
    if (ipc->closed) return errno = ESHUTDOWN, 0; // by the sink of the guard's line
    if (!ipc->peer_watches) ipc->peer_watches = new PeerWatches(ipc);
    return ipc->peer_watches->add(name, callback, user);
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return 0;
}

int tav_ipc_unwatch(tav_ipc_st *ipc, uint64_t id) noexcept {
    if (!ipc) return errno = EINVAL, -1;
    if (!ipc->peer_watches || !ipc->peer_watches->remove(id)) return errno = ENOENT, -1;
    if (ipc->peer_watches->empty()) close_peer_watches(ipc);
    return 0;
}
