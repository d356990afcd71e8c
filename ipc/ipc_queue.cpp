// The delivery queue: records in a heap and one timer.
//
// The heap's top is the record of the earliest due second and, within that second, of the highest priority.
// A top that is due later in its second holds back lower priorities that are due already. The timer is armed
// whenever records wait: push arms it or brings it forward, and the consume pass that it starts arms it again
// for the records that stay. A consume callback may push, pop and destroy the queue.
#include "tavipc/ipc_queue.h"

#include <cstdlib>
#include <utility>

#include "common/log.h"
#include "ipc/accounting.h"
#include "ipc/destination.h"
#include "ipc/random.h"
#include "ipc/teardown_watch.h"
#include "tavaux.h"

namespace tavipc {
namespace {

constexpr uint32_t kPoolSize = 32;         // sending sockets of an endpoint
constexpr uint32_t kPoolSizeLocation1 = 8; // the same in a process at location 1
constexpr int32_t kDefaultPriority = 4;    // of a record whose priority is 0

int compare_entries(const void *a, const void *b) {
    return compare_ipc_queue_msg_priority(static_cast<const ipc_queue_msg_st *>(a),
                                          static_cast<const ipc_queue_msg_st *>(b));
}

mod_info_st &module_of(const ipc_queue_st &queue, const ipc_queue_msg_st &msg) {
    return msg.mod ? *msg.mod : *queue.default_mod;
}

void consume_pass(void *argument);

// Arms the timer for the top, unless it is armed or nothing waits. Returns false when the event library
// refuses; the log line about that may destroy the queue.
bool arm_timer(ipc_queue_st &queue, uint64_t now) {
    const ipc_queue_msg_st *top = ipc_queue_top(&queue);
    if (queue.timer || !top) return true;
    const uint64_t delay_ms = top->retry_later > now ? top->retry_later - now : 1;
    queue.timer = cl_timer_start(delay_ms, consume_pass, &queue);
    if (queue.timer) return true;
    TAV_LOG_LIMITED(2, "ipc_queue", "set msg delay consume timer failed, timeout_ms=%u",
                    static_cast<unsigned>(delay_ms));
    return false;
}

void stop_timer(ipc_queue_st &queue) {
    if (queue.timer) cl_timer_stop(std::exchange(queue.timer, 0));
}

void consume_pass(void *argument) {
    auto &queue = *static_cast<ipc_queue_st *>(argument);
    queue.timer = 0;
    TeardownWatch watch(queue.destroyed);
    const uint64_t now = cl_event_loop_now();
    // Records that the callbacks push wait for the next pass, so a chain of refusals cannot hold the loop.
    for (uint32_t rounds = ipc_queue_len(&queue); rounds > 0; --rounds) {
        const ipc_queue_msg_st *top = ipc_queue_top(&queue);
        if (!top || now < top->retry_later) break;
        ipc_queue_msg_st *msg = ipc_queue_pop(&queue);
        if (!msg) break;
        ++msg->try_times;
        queue.consume(now, msg);
        if (watch.torn_down()) return;
    }
    arm_timer(queue, cl_event_loop_now());
}

// Makes the queue's tables. Returns false when memory is short; destroy_ipc_queue releases what was made.
bool make_tables(ipc_queue_st &queue) {
    queue.mods = xhash_create(release_destination, 0);
    if (!queue.mods) return false;
    queue.heap = heap_create(compare_entries);
    if (!queue.heap) return false;
    Destination *own = new_destination(0, cl_event_loop_now());
    if (!own) return false;
    queue.default_mod = &own->info;
    queue.fd_pool_count = tav_get_location() == 1 ? kPoolSizeLocation1 : kPoolSize;
    TAV_LOG(4, "ipc_queue", "ipc queue unix fd pool real count: %u", queue.fd_pool_count);
    queue.fd_pool = static_cast<cl_dunix_t *>(std::calloc(queue.fd_pool_count, sizeof(cl_dunix_t)));
    return queue.fd_pool != nullptr;
}

} // namespace
} // namespace tavipc

extern "C" {

ipc_queue_msg_st *create_ipc_queue_msg(uint32_t extra) noexcept {
    size_t size;
    if (__builtin_add_overflow(sizeof(ipc_queue_msg_st), extra, &size)) return nullptr;
    return static_cast<ipc_queue_msg_st *>(std::malloc(size));
}

void free_ipc_queue_msg(ipc_queue_msg_st *msg) noexcept {
    if (!msg) return;
    if (msg->data_free) msg->data_free(msg->data, msg->size);
    std::free(msg);
}

int32_t get_real_priority(int32_t priority) noexcept {
    return priority != 0 ? priority : tavipc::kDefaultPriority;
}

int32_t compare_ipc_queue_msg_priority(const ipc_queue_msg_st *a, const ipc_queue_msg_st *b) noexcept {
    const uint64_t a_second = a->retry_later / 1000;
    const uint64_t b_second = b->retry_later / 1000;
    if (a_second != b_second) return static_cast<int32_t>(a_second - b_second);
    const auto rank = [](const ipc_queue_msg_st *msg) {
        return static_cast<uint32_t>(get_real_priority(static_cast<int32_t>(msg->priority)));
    };
    return static_cast<int32_t>(rank(b) - rank(a)); // unsigned: no priority makes it overflow
}

void ipc_queue_msg_set_retry_later(ipc_queue_msg_st *msg, uint64_t now_ms, uint64_t delay_ms) noexcept {
    if (msg) msg->retry_later = now_ms + delay_ms;
}

void ipc_queue_msg_set_retry_later_random(ipc_queue_msg_st *msg, uint64_t now_ms) noexcept {
    if (!msg) return;
    const auto draw = static_cast<uint32_t>(tavipc::draw_random() % 10);
    ipc_queue_msg_set_retry_later(msg, now_ms, (draw + 10u * (msg->try_times % 5)) % 50);
}

int init_ipc_queue(ipc_queue_st *queue, int32_t location, ipc_queue_consume_cb consume,
                   const cl_dunix_t *socket) noexcept {
    if (!queue || !consume || !socket || !*socket) return -1;
    *queue = {};
    queue->location = location;
    queue->consume = consume;
    if (!tavipc::make_tables(*queue)) {
        destroy_ipc_queue(queue);
        return -1;
    }
    queue->default_mod->sock = *socket; // last: from now on the queue closes it
    return 0;
}

void destroy_ipc_queue(ipc_queue_st *queue) noexcept {
    if (!queue) return;
    tavipc::mark_torn_down(queue->destroyed);
    tavipc::stop_timer(*queue);
    while (ipc_queue_msg_st *msg = ipc_queue_pop(queue)) {
        tavipc::account_dropped(*msg, TAV_IPC_STATS_DROPPED_CLOSED);
        free_ipc_queue_msg(msg);
    }
    tavipc::stop_timer(*queue); // a push from a record's data_free has armed it again
    heap_destroy(std::exchange(queue->heap, nullptr));
    if (queue->default_mod) destroy_unix_socket(std::exchange(queue->default_mod->sock, 0));
    queue->last_found = nullptr;
    xhash_destroy(std::exchange(queue->mods, nullptr));
    queue->mod_count = 0;
    tavipc::release_destination(std::exchange(queue->default_mod, nullptr));
    const uint32_t count = std::exchange(queue->fd_pool_count, 0);
    cl_dunix_t *pool = std::exchange(queue->fd_pool, nullptr);
    queue->fd_pool_next = 0;
    for (uint32_t i = 0; pool && i < count; ++i) destroy_unix_socket(pool[i]);
    std::free(pool);
}

int ipc_queue_push(ipc_queue_st *queue, ipc_queue_msg_st **msg, uint64_t now_ms) noexcept {
    if (!queue || !queue->heap || !msg || !*msg) return -1;
    ipc_queue_msg_st &record = **msg;
    const ipc_queue_msg_st *first = ipc_queue_top(queue);
    if (heap_push(queue->heap, &record) != 0) return -1;
    *msg = nullptr;
    mod_info_st &mod = tavipc::module_of(*queue, record);
    tavipc::count_in(mod.queued, mod.queued_bytes, record.size);
    tavipc::account_queued(record);
    // The armed timer may belong to a record that has left the queue, so the old top decides, not the timer.
    if (!first || record.retry_later < first->retry_later) tavipc::stop_timer(*queue);
    return tavipc::arm_timer(*queue, now_ms) ? 0 : -1;
}

ipc_queue_msg_st *ipc_queue_top(const ipc_queue_st *queue) noexcept {
    return queue && queue->heap ? static_cast<ipc_queue_msg_st *>(heap_top(queue->heap)) : nullptr;
}

ipc_queue_msg_st *ipc_queue_pop(ipc_queue_st *queue) noexcept {
    void *entry = nullptr;
    if (!queue || !queue->heap || heap_pop(queue->heap, &entry) != 0) return nullptr;
    auto *msg = static_cast<ipc_queue_msg_st *>(entry);
    mod_info_st &mod = tavipc::module_of(*queue, *msg);
    tavipc::count_out(mod.queued, mod.queued_bytes, msg->size);
    tavipc::account_unqueued(*msg);
    return msg;
}

uint32_t ipc_queue_len(const ipc_queue_st *queue) noexcept {
    return queue && queue->heap ? heap_count(queue->heap) : 0;
}

} // extern "C"
