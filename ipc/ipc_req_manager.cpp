// Outstanding requests: a table by id and a heap of expiries.
//
// Every insert makes one expiry entry. It leaves the heap when it has expired and surfaces, never when the
// request is removed: an entry whose id is no longer in the table is stale and dropped when it surfaces, or
// when the heap is rebuilt because too many are. The timer ticks while the heap holds anything.
#include "tavipc/ipc_req_manager.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "ipc/teardown_watch.h"

namespace tavipc {
namespace {

constexpr uint64_t kTick_ms = 1000;
constexpr uint32_t kCompactAbove = 87'381; // entries
constexpr uint32_t kStaleLimit = 436'907;

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

bool should_compact(uint32_t entries, uint32_t live) {
    if (entries <= kCompactAbove || live >= entries) return false;
    return entries - live > kStaleLimit || entries > uint64_t{2} * live;
}

void move_all(heap_t *from, heap_t *to) {
    void *entry = nullptr;
    while (heap_pop(from, &entry) == 0)
        if (heap_push(to, entry) != 0) std::free(entry);
}

// Rebuilds the heap from its live entries when too many are stale.
void compact(ipc_req_manager_st &manager) {
    heap_t *old = manager.expiry_heap;
    if (!should_compact(heap_count(old), xhash_count(manager.reqs))) return;
    heap_t *fresh = make_heap();
    if (!fresh) return;
    void *entry = nullptr;
    while (heap_pop(old, &entry) == 0) {
        if (!is_live(manager, entry)) {
            std::free(entry);
        } else if (heap_push(fresh, entry) != 0) {
            // Short memory: all goes back to the old heap, which has the room that it had before.
            if (heap_push(old, entry) != 0) std::free(entry);
            move_all(fresh, old);
            heap_destroy2(fresh);
            return;
        }
    }
    heap_destroy2(old);
    manager.expiry_heap = fresh;
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
        arm_timer(manager); // the others' time-outs go on if the callback runs the loop
        if (manager.on_timeout)
            manager.on_timeout(reqid, record, manager.user);
        else
            ipc_req_manager_remove(&manager, reqid);
        if (watch.torn_down()) return;
    }
    compact(manager);
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
    // Zeroed first: a release function may look at the manager, and finds it empty.
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
    // The entry first: without a record it is stale and harmless, a record without it would never expire.
    const int result = xhash_insert(manager->reqs, &reqid, sizeof reqid, record) == 0 ? 0 : -1;
    tavipc::compact(*manager);
    tavipc::arm_timer(*manager);
    return result;
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
