// Module infos and the socket pool.
//
// A module info is made at the first lookup of its name and lives until it is idle (nothing queued, nothing
// in flight) and somebody asks for its release: the hourly sweep, or the transmitter when there are very
// many. The pool is a fixed array of slots taken round-robin by new module infos; a slot's socket is made
// when it is first taken and stays until the queue is destroyed, shared by all that took the slot.
#include "ipc/module_info.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "ipc/pool_files.h"

namespace tavipc {
namespace {

constexpr int kSocketAttempts = 3;
constexpr uint64_t kIdleLimit_ms = 3'600'000;

// The socket of the next slot, and on to the slot after it; 0 when none can be made.
cl_dunix_t take_pool_socket(ipc_queue_st &queue) {
    if (!queue.fd_pool || queue.fd_pool_count == 0) return 0;
    cl_dunix_t &slot = queue.fd_pool[queue.fd_pool_next];
    for (int attempt = 0; !slot && attempt < kSocketAttempts; ++attempt) {
        char name[64];
        pool_socket_name(name, sizeof name, getpid(), rand() % 10000);
        const cl_dunix_t made = create_unix_socket(queue.location, name);
        if (slot)
            destroy_unix_socket(made); // a send from its log line was quicker
        else
            slot = made;
    }
    if (slot) queue.fd_pool_next = (queue.fd_pool_next + 1) % queue.fd_pool_count;
    return slot;
}

mod_info_st *find_entry(ipc_queue_st &queue, const char *name, uint32_t length) {
    mod_info_st *last = queue.last_found;
    if (last && last->name_len == length && std::memcmp(last->name, name, length) == 0) return last;
    void *found = nullptr;
    if (xhash_search(queue.mods, name, length, &found) != 0) return nullptr;
    return queue.last_found = static_cast<mod_info_st *>(found);
}

mod_info_st *add_module_info(ipc_queue_st &queue, const char *name, uint32_t length, uint64_t now) {
    mod_info_st *mod = new_module_info(0, now);
    if (!mod) return nullptr;
    mod->sock = take_pool_socket(queue);
    if (mod_info_st *there = find_entry(queue, name, length)) { // made by a send from a log line
        std::free(mod);
        return there;
    }
    if (!mod->sock || xhash_insert(queue.mods, name, length, mod) != 0) {
        std::free(mod);
        return nullptr;
    }
    ++queue.mod_count;
    mod->name_len = length;
    std::memcpy(mod->name, name, length + 1);
    return mod;
}

struct Sweep {
    ipc_queue_st *queue;
    uint64_t now;
};

int sweep_visit(const void *, uint32_t, void *value, void *context) {
    auto *mod = static_cast<mod_info_st *>(value);
    const auto *sweep = static_cast<const Sweep *>(context);
    if (mod->last_used + kIdleLimit_ms < sweep->now) free_mod_info(mod, sweep->queue);
    return 0;
}

} // namespace

mod_info_st *find_module(ipc_queue_st &queue, const char *name, uint64_t now) {
    const size_t length = strnlen(name, sizeof(mod_info_st::name));
    if (length >= sizeof(mod_info_st::name)) return nullptr;
    mod_info_st *mod = find_entry(queue, name, static_cast<uint32_t>(length));
    if (!mod) return add_module_info(queue, name, static_cast<uint32_t>(length), now);
    mod->last_used = now;
    return mod;
}

mod_info_st *new_module_info(cl_dunix_t sock, uint64_t now) {
    auto *mod = static_cast<mod_info_st *>(std::calloc(1, sizeof(mod_info_st)));
    if (!mod) return nullptr;
    mod->sock = sock;
    mod->last_used = now;
    return mod;
}

} // namespace tavipc

extern "C" {

mod_info_st *ipc_queue_find_mod(ipc_queue_st *queue, const char *name) noexcept {
    if (!queue || !queue->mods || !name) return nullptr;
    return tavipc::find_module(*queue, name, cl_event_loop_now());
}

void free_mod_info(mod_info_st *mod, ipc_queue_st *queue) noexcept {
    if (!mod || !queue || !queue->mods || mod == queue->default_mod) return;
    if (mod->queued != 0 || mod->sending != 0) return;
    --queue->mod_count;
    if (queue->last_found == mod) queue->last_found = nullptr;
    xhash_delete(queue->mods, mod->name, mod->name_len);
}

void free_mod_info_hash(ipc_queue_st *queue) noexcept {
    if (!queue || !queue->mods) return;
    tavipc::Sweep sweep{queue, cl_event_loop_now()};
    xhash_walk(queue->mods, &sweep, tavipc::sweep_visit);
}

} // extern "C"
