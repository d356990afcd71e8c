// Destinations and the socket pool.
//
// The pool is a fixed array of slots that new destinations take in turn. A slot's socket is made when the
// slot is first taken, stays until the queue is destroyed and serves all destinations that took the slot.
#include "ipc/destination.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "common/owned.h"
#include "ipc/random.h"
#include "ipc/socket_directory.h"
#include "ipc/teardown_watch.h"
#include "tavaux.h"

namespace tavipc {
namespace {

constexpr int kSocketAttempts = 3;            // each with another number in the socket's name
constexpr int kSocketNumbers = 10'000;        // the numbers are drawn below this
constexpr uint64_t kIdleLimit_ms = 3'600'000; // an hour without a look-up

// The socket of the next slot, and on to the slot after it. 0 when none can be made, or when the sink of a
// log line destroyed the queue.
cl_dunix_t take_pool_socket(ipc_queue_st &queue, const TeardownWatch &watch) {
    if (!queue.fd_pool || queue.fd_pool_count == 0) return 0;
    const uint32_t index = queue.fd_pool_next;
    for (int attempt = 0; !queue.fd_pool[index] && attempt < kSocketAttempts; ++attempt) {
        char name[64];
        sending_socket_name(name, sizeof name, getpid(), draw_random() % kSocketNumbers);
        const cl_dunix_t made = create_unix_socket(queue.location, name);
        const bool too_late = watch.torn_down() || queue.fd_pool[index]; // a send from the log line was first
        if (too_late)
            destroy_unix_socket(made);
        else
            queue.fd_pool[index] = made;
        if (watch.torn_down()) return 0;
    }
    if (queue.fd_pool[index]) queue.fd_pool_next = (index + 1) % queue.fd_pool_count;
    return queue.fd_pool[index];
}

Destination *find_entry(ipc_queue_st &queue, const char *name, uint32_t length) {
    mod_info_st *last = queue.last_found;
    if (!last || last->name_len != length || std::memcmp(last->name, name, length) != 0) {
        void *found = nullptr;
        if (xhash_search(queue.mods, name, length, &found) != 0) return nullptr;
        last = queue.last_found = &static_cast<Destination *>(found)->info;
    }
    return &destination_of(*last);
}

Destination *make_destination(ipc_queue_st &queue, const char *name, uint32_t length, uint64_t now_ms) {
    MallocPtr<Destination> made(new_destination(0, now_ms));
    if (!made) return nullptr;
    const TeardownWatch watch(queue.destroyed);
    made->info.sock = take_pool_socket(queue, watch);
    if (watch.torn_down()) return nullptr;
    if (Destination *there = find_entry(queue, name, length)) return there; // made by a send from a log line
    if (!made->info.sock || xhash_insert(queue.mods, name, length, made.get()) != 0) return nullptr;
    ++queue.mod_count;
    made->info.name_len = length;
    std::memcpy(made->info.name, name, length);
    return made.release();
}

// False when the name does not fit into a mod_info_st.
bool measure_name(const char *name, uint32_t *length) {
    *length = static_cast<uint32_t>(strnlen(name, sizeof(mod_info_st::name)));
    return *length < sizeof(mod_info_st::name);
}

struct Sweep {
    ipc_queue_st *queue;
    uint64_t now_ms;
};

int sweep_visit(const void *, uint32_t, void *value, void *context) {
    mod_info_st &info = static_cast<Destination *>(value)->info;
    const auto *sweep = static_cast<const Sweep *>(context);
    if (info.last_used + kIdleLimit_ms < sweep->now_ms) free_mod_info(&info, sweep->queue);
    return 0;
}

} // namespace

bool Destination::leads_to(const char *pipe) const {
    return address.len && deploy_type == GetDeployTypeStr() &&
           std::strcmp(address.addr.sun_path + pipe_at, pipe) == 0;
}

Destination *find_destination(ipc_queue_st &queue, const char *name) {
    uint32_t length;
    return measure_name(name, &length) ? find_entry(queue, name, length) : nullptr;
}

// Most messages go where the one before went. Both names are zero behind their end, so they are compared as
// words.
Destination *find_destination(ipc_queue_st &queue, const NameText &name) {
    static_assert(sizeof(mod_info_st::name) > TAV_IPC_NAME_SIZE &&
                  sizeof(NameText) >= sizeof(mod_info_st::name));
    mod_info_st *last = queue.last_found;
    if (last && std::memcmp(last->name, name.text, sizeof last->name) == 0) return &destination_of(*last);
    return find_destination(queue, name.text);
}

Destination *find_or_make_destination(ipc_queue_st &queue, const char *name, uint64_t now_ms) {
    uint32_t length;
    if (!measure_name(name, &length)) return nullptr;
    Destination *destination = find_entry(queue, name, length);
    if (!destination) return make_destination(queue, name, length, now_ms);
    destination->info.last_used = now_ms;
    return destination;
}

Destination *new_destination(cl_dunix_t sock, uint64_t now_ms) {
    auto *destination = static_cast<Destination *>(std::calloc(1, sizeof(Destination)));
    if (!destination) return nullptr;
    destination->info.sock = sock;
    destination->info.last_used = now_ms;
    return destination;
}

void release_destination(void *memory) {
    auto *destination = static_cast<Destination *>(memory);
    if (destination) close_account(destination->account);
    if (destination && destination->pins > 0)
        destination->abandoned = true;
    else
        std::free(destination);
}

bool nothing_in_flight(const ipc_queue_st &queue) {
    const auto visit = [](const void *, uint32_t, void *value, void *context) {
        *static_cast<uint32_t *>(context) += static_cast<const Destination *>(value)->info.sending;
        return 0;
    };
    uint32_t in_flight = queue.default_mod->sending;
    xhash_walk(queue.mods, &in_flight, visit);
    return in_flight == 0;
}

} // namespace tavipc

extern "C" {

mod_info_st *ipc_queue_find_mod(ipc_queue_st *queue, const char *name) noexcept {
    if (!queue || !queue->mods || !name) return nullptr;
    auto *found = tavipc::find_or_make_destination(*queue, name, cl_event_loop_now());
    return found ? &found->info : nullptr;
}

void free_mod_info(mod_info_st *mod, ipc_queue_st *queue) noexcept {
    if (!mod || !queue || !queue->mods || mod == queue->default_mod) return;
    if (mod->queued != 0 || mod->sending != 0) return;
    const auto *entry = tavipc::find_entry(*queue, mod->name, mod->name_len);
    if (!entry || &entry->info != mod || entry->pins != 0) return;
    --queue->mod_count;
    queue->last_found = nullptr;
    xhash_delete(queue->mods, mod->name, mod->name_len);
}

void free_mod_info_hash(ipc_queue_st *queue) noexcept {
    if (!queue || !queue->mods) return;
    tavipc::Sweep sweep{queue, cl_event_loop_now()};
    xhash_walk(queue->mods, &sweep, tavipc::sweep_visit);
}

} // extern "C"
