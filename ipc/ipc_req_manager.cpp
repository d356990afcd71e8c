// Outstanding requests: a table by id and a heap of expiries.
//
// Each insertion adds one expiry to the heap. Removing a request leaves its expiry there as a stale entry,
// which is dropped when it reaches the top, or when the heap is rebuilt because too many entries are stale.
// The timer runs while the heap has entries.
#include "tavipc/ipc_req_manager.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/out_of_memory.h"
#include "common/relaxed.h"
#include "ipc/teardown_watch.h"

namespace tavipc {
namespace {

constexpr uint64_t kTick_ms = 1000; // time-outs are whole seconds
// In entries. An entry takes 24 bytes (16 and a pointer to them): a heap of at most 2 MiB is
// left alone, and at most 10 MiB may be stale.
constexpr uint32_t kRebuildAbove = 87'381;
constexpr uint32_t kMostStale = 436'907;
// A rebuild for which memory was short is tried again after this time, not at each insertion.
constexpr uint64_t kRetryRebuild_ms = 1000;

struct Expiry {
    uint32_t reqid;
    int64_t expire_ms;
};

int compare_expiries(const void *a, const void *b) {
    const int64_t left = static_cast<const Expiry *>(a)->expire_ms;
    const int64_t right = static_cast<const Expiry *>(b)->expire_ms;
    return left < right ? -1 : left > right;
}

heap_t *make_heap() { return heap_create2(std::free, compare_expiries, 0); }

bool is_live(const ipc_req_manager_st &manager, const void *entry) {
    const uint32_t reqid = static_cast<const Expiry *>(entry)->reqid;
    return xhash_search(manager.reqs, &reqid, sizeof reqid, nullptr) == 0;
}

bool should_rebuild(uint32_t entries, uint32_t live) {
    if (entries <= kRebuildAbove || live >= entries) return false;
    return entries - live > kMostStale || entries > uint64_t{2} * live;
}

// A heap that has held that many entries, and so has memory for them. Null if memory is short.
heap_t *make_heap_for(uint32_t entries) {
    heap_t *heap = make_heap();
    static Expiry filler{};
    uint32_t pushed = 0;
    while (heap && pushed < entries && heap_push(heap, &filler) == 0) ++pushed;
    while (heap_pop(heap, nullptr) == 0) continue;
    if (pushed == entries) return heap;
    heap_destroy(heap);
    return nullptr;
}

// Moves the live entries to a new heap and frees the stale ones. The new heap gets memory for all entries
// before the first one moves, so that short memory loses none. False if memory is short.
bool replace_heap(ipc_req_manager_st &manager) {
    heap_t *old = manager.expiry_heap;
    heap_t *fresh = make_heap_for(heap_count(old));
    if (!fresh) return false;
    while (void *entry = heap_top(old)) {
        const bool live = is_live(manager, entry);
        if (live && heap_push(fresh, entry) != 0) // only if another library's heap gave its memory back
            out_of_memory("ipc_req", __LINE__);
        heap_pop(old, nullptr);
        if (!live) std::free(entry);
    }
    heap_destroy(old);
    manager.expiry_heap = fresh;
    return true;
}

// Rebuilds the heap if too many of its entries are stale.
void rebuild(ipc_req_manager_st &manager) {
    static constinit Relaxed<uint64_t> failed_ms = 0; // on the loop clock; 0: never
    if (!should_rebuild(heap_count(manager.expiry_heap), xhash_count(manager.reqs))) return;
    const uint64_t now_ms = cl_event_loop_now();
    if (failed_ms != 0 && now_ms - failed_ms < kRetryRebuild_ms) return;
    if (replace_heap(manager))
        (void)replace_heap(manager); // by one with memory for what is left; may fail
    else
        failed_ms = now_ms;
}

void tick(void *argument);

void arm_timer(ipc_req_manager_st &manager) {
    if (manager.timer == 0 && heap_count(manager.expiry_heap) > 0)
        manager.timer = cl_timer_start(kTick_ms, tick, &manager);
}

void tick(void *argument) {
    auto &manager = *static_cast<ipc_req_manager_st *>(argument);
    manager.timer = 0;
    TeardownWatch watch(manager.destroyed);
    const auto now_ms = static_cast<int64_t>(manager.now_getter());
    uint32_t reqid = 0;
    void *record = nullptr;
    while (ipc_req_manager_pop_timeout(&manager, now_ms, &reqid, &record) == 0) {
        arm_timer(manager); // other requests must expire even while the callback runs the loop
        if (manager.on_timeout)
            manager.on_timeout(reqid, record, manager.user);
        else
            ipc_req_manager_remove(&manager, reqid);
        if (watch.torn_down()) return;
    }
    rebuild(manager);
    arm_timer(manager);
    if (manager.timer && heap_count(manager.expiry_heap) == 0) cl_timer_stop(std::exchange(manager.timer, 0));
}

struct Walk {
    int (*visit)(uint32_t reqid, void *record, void *argument);
    void *argument;
};

int walk_visit(const void *key, uint32_t, void *value, void *context) {
    uint32_t reqid;
    std::memcpy(&reqid, key, sizeof reqid);
    const auto *walk = static_cast<const Walk *>(context);
    return walk->visit(reqid, value, walk->argument);
}

} // namespace
} // namespace tavipc

extern "C" {

int ipc_req_manager_init(ipc_req_manager_st *manager, void (*release)(void *record),
                         void (*on_timeout)(uint32_t reqid, void *record, void *user), void *user) noexcept {
    if (!manager) return -1;
    *manager = {};
    manager->release = release;
    manager->on_timeout = on_timeout;
    manager->user = user;
    manager->reqs = xhash_create(release, 0);
    if (manager->reqs) manager->expiry_heap = tavipc::make_heap();
    if (!manager->expiry_heap) {
        ipc_req_manager_uninit(manager);
        return -1;
    }
    manager->now_getter = cl_event_loop_now;
    return 0;
}

void ipc_req_manager_uninit(ipc_req_manager_st *manager) noexcept {
    if (!manager) return;
    tavipc::mark_torn_down(manager->destroyed);
    // A release function may use the manager, so it is empty before the records are released.
    const ipc_req_manager_st old = std::exchange(*manager, {});
    if (old.timer) cl_timer_stop(old.timer);
    xhash_destroy(old.reqs);
    heap_destroy2(old.expiry_heap);
}

void ipc_req_manager_set_now_getter(ipc_req_manager_st *manager, uint64_t (*getter)(void)) noexcept {
    if (manager && manager->reqs) manager->now_getter = getter ? getter : cl_event_loop_now;
}

int ipc_req_manager_insert(ipc_req_manager_st *manager, uint32_t reqid, void *record,
                           int64_t expire_ms) noexcept {
    if (!manager || !manager->reqs || !record) return -1;
    auto *entry = static_cast<tavipc::Expiry *>(std::malloc(sizeof(tavipc::Expiry)));
    if (!entry) return -1;
    *entry = {reqid, expire_ms};
    if (heap_push(manager->expiry_heap, entry) != 0) {
        std::free(entry);
        return -1;
    }
    // The expiry and the timer come first: without a record they do no harm, while a record without them
    // would never expire.
    tavipc::arm_timer(*manager);
    if (!manager->timer || xhash_insert(manager->reqs, &reqid, sizeof reqid, record) != 0) return -1;
    tavipc::rebuild(*manager);
    return 0;
}

int ipc_req_manager_find(const ipc_req_manager_st *manager, uint32_t reqid, void **record) noexcept {
    if (!manager || !manager->reqs) return -1;
    return xhash_search(manager->reqs, &reqid, sizeof reqid, record);
}

void ipc_req_manager_remove(ipc_req_manager_st *manager, uint32_t reqid) noexcept {
    if (manager && manager->reqs) xhash_delete(manager->reqs, &reqid, sizeof reqid);
}

int ipc_req_manager_pop_timeout(ipc_req_manager_st *manager, int64_t now_ms, uint32_t *reqid,
                                void **record) noexcept {
    if (!manager || !manager->expiry_heap || !reqid || !record) return 1;
    while (auto *top = static_cast<tavipc::Expiry *>(heap_top(manager->expiry_heap))) {
        if (top->expire_ms >= now_ms || heap_pop(manager->expiry_heap, nullptr) != 0) return 1;
        const uint32_t id = top->reqid;
        std::free(top);
        if (ipc_req_manager_find(manager, id, record) == 0) {
            *reqid = id;
            return 0;
        }
    }
    return 1;
}

void ipc_req_manager_walk(ipc_req_manager_st *manager, int (*visit)(uint32_t, void *, void *),
                          void *argument) noexcept {
    if (!manager || !manager->reqs || !visit) return;
    tavipc::Walk walk{visit, argument};
    xhash_walk(manager->reqs, &walk, tavipc::walk_visit);
}

uint32_t ipc_req_manager_count(const ipc_req_manager_st *manager) noexcept {
    return manager && manager->reqs ? xhash_count(manager->reqs) : 0;
}

} // extern "C"
