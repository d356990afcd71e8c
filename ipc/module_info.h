// Module infos: the per-destination counters of a delivery queue.
#pragma once

#include "tavipc/ipc_queue.h"

namespace tavipc {

// A zeroed module info, used now, that sends through sock. Null when memory is short. From malloc: the
// queue's table releases it with free, its sockets are never its own.
mod_info_st *new_module_info(cl_dunix_t sock, uint64_t now);
// What ipc_queue_find_mod does, at loop time now.
mod_info_st *find_module(ipc_queue_st &queue, const char *name, uint64_t now);

// Keeps a module info, which may be released when nothing of it is under way.
class InUse {
  public:
    explicit InUse(mod_info_st &mod) : mod_(mod) { ++mod_.sending; }
    ~InUse() { --mod_.sending; }
    InUse(const InUse &) = delete;
    InUse &operator=(const InUse &) = delete;

  private:
    mod_info_st &mod_;
};

inline void add_record(mod_info_st &mod, uint32_t size) {
    ++mod.queued;
    mod.queued_bytes = mod.queued_bytes > UINT32_MAX - size ? UINT32_MAX : mod.queued_bytes + size;
}
inline void take_record(mod_info_st &mod, uint32_t size) {
    if (mod.queued > 0) --mod.queued;
    mod.queued_bytes -= mod.queued_bytes < size ? mod.queued_bytes : size;
}

} // namespace tavipc
