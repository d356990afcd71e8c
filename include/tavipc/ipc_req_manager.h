/* ipc_req_manager.h - outstanding requests by id, with expiry.
 *
 * A manager maps request ids to the caller's records and reports, from a timer that ticks once a second
 * while anything is outstanding, the requests whose expiry lies strictly in the past. Removal touches only
 * the table; the expiry entries of removed requests are dropped when they surface, or in bulk.
 * A manager belongs to one event-loop thread. All functions are harmless on an all-zero manager and on null.
 */
#ifndef TAVIPC_IPC_REQ_MANAGER_H
#define TAVIPC_IPC_REQ_MANAGER_H

#include <stdint.h>

#include "tav_api.h"
#include "tavbase.h"
#include "tavcl_ev.h"

typedef struct ipc_req_manager_st {
    uint64_t (*now_getter)(void); /* current time in milliseconds, of any clock */
    xhash_t *reqs;                /* request id -> record */
    heap_t *expiry_heap;          /* ids by expiry, with stale entries */
    void (*release)(void *record);
    cl_timer_t timer; /* 0 = not armed */
    void (*on_timeout)(uint32_t reqid, void *record, void *user);
    void *user;
    int *destroyed; /* private: tells a running tick that the manager is gone */
} ipc_req_manager_st;

TAVIPC_BEGIN_DECLS

/* Sets up a manager. release (may be null) releases a record that leaves the table. on_timeout (may be
 * null: expired requests are then just removed) is called with each expired request, which stays in the
 * table until the callback removes it; it may insert, remove, uninit the manager and free its owner. The
 * clock is cl_event_loop_now. 0; -1 when memory is short (the manager is then all zero). */
TAVIPC_API int ipc_req_manager_init(ipc_req_manager_st *manager, void (*release)(void *record),
                                    void (*on_timeout)(uint32_t reqid, void *record, void *user),
                                    void *user) TAVIPC_NOEXCEPT;
/* Stops the timer, releases every record without a callback and zeroes the manager. */
TAVIPC_API void ipc_req_manager_uninit(ipc_req_manager_st *manager) TAVIPC_NOEXCEPT;
/* Sets the clock; null selects cl_event_loop_now. */
TAVIPC_API void ipc_req_manager_set_now_getter(ipc_req_manager_st *manager,
                                               uint64_t (*getter)(void)) TAVIPC_NOEXCEPT;

/* Stores record (not null) under reqid until expire_ms on the manager's clock. A record already there is
 * released and replaced. 0; -1 when memory is short (nothing is stored, the record stays the caller's). */
TAVIPC_API int ipc_req_manager_insert(ipc_req_manager_st *manager, uint32_t reqid, void *record,
                                      int64_t expire_ms) TAVIPC_NOEXCEPT;
/* 0 and *record when found; else non-zero and *record untouched. */
TAVIPC_API int ipc_req_manager_find(const ipc_req_manager_st *manager, uint32_t reqid,
                                    void **record) TAVIPC_NOEXCEPT;
/* Removes and releases; an unknown id is ignored. */
TAVIPC_API void ipc_req_manager_remove(ipc_req_manager_st *manager, uint32_t reqid) TAVIPC_NOEXCEPT;
/* The next request that expired before now_ms: 0 and both outs; it stays in the table. 1 when there is none.
 */
TAVIPC_API int ipc_req_manager_pop_timeout(ipc_req_manager_st *manager, int64_t now_ms, uint32_t *reqid,
                                           void **record) TAVIPC_NOEXCEPT;
/* Visits every request; a non-zero result of the visitor ends the walk. The visitor may insert and remove. */
TAVIPC_API void ipc_req_manager_walk(ipc_req_manager_st *manager,
                                     int (*visit)(uint32_t reqid, void *record, void *argument),
                                     void *argument) TAVIPC_NOEXCEPT;
TAVIPC_API uint32_t ipc_req_manager_count(const ipc_req_manager_st *manager) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_IPC_REQ_MANAGER_H */
