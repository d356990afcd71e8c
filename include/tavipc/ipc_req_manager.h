/* ipc_req_manager.h - outstanding requests by id, with expiry.
 *
 * A manager maps request ids to records of the caller. A timer, which ticks once a second while an expiry is
 * ahead, reports the requests whose expiry lies in the past. A manager belongs to one event-loop thread.
 * Every function accepts a null manager, and all but ipc_req_manager_init one that is all zero: they do
 * nothing then, and report failure or 0 requests.
 *
 * An expiry belongs to an id, and is kept when the request under the id is removed or replaced. If an id is
 * replaced, or removed and inserted again, the new request is therefore also reported at each earlier expiry
 * of the id. on_timeout must then compare the time itself: keep the expiry in the record, and return if it is
 * still ahead. Without on_timeout the new request is removed at the earlier expiry.
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
    heap_t *expiry_heap;          /* ids by expiry; also those of requests that were removed */
    void (*release)(void *record);
    cl_timer_t timer; /* 0 = not armed */
    void (*on_timeout)(uint32_t reqid, void *record, void *user);
    void *user;
    int *destroyed; /* private: set for a running tick when the manager is released */
} ipc_req_manager_st;

TAVIPC_BEGIN_DECLS

/* Initialises a manager whose clock is cl_event_loop_now. release (may be null) releases a record that
 * leaves the table. on_timeout (may be null: expired requests are then removed) runs for each expiry of a
 * request in the table, which stays there until it is removed. It may insert and remove requests,
 * uninitialise the manager and free it. Returns 0; -1 when manager is null, or memory is short (the manager
 * is then all zero). */
TAVIPC_API int ipc_req_manager_init(ipc_req_manager_st *manager, void (*release)(void *record),
                                    void (*on_timeout)(uint32_t reqid, void *record, void *user),
                                    void *user) TAVIPC_NOEXCEPT;
/* Stops the timer, releases all records without a callback and sets the manager to zero. */
TAVIPC_API void ipc_req_manager_uninit(ipc_req_manager_st *manager) TAVIPC_NOEXCEPT;
/* Sets the clock, in milliseconds; null selects cl_event_loop_now. */
TAVIPC_API void ipc_req_manager_set_now_getter(ipc_req_manager_st *manager,
                                               uint64_t (*getter)(void)) TAVIPC_NOEXCEPT;

/* Stores record (not null) under reqid. It expires when the manager's clock is past expire_ms. A record that
 * is already stored under the id is released and replaced. Returns 0; -1 when manager or record is null, the
 * manager is all zero, memory is short, or no timer can be started: nothing is stored, and the record stays
 * the caller's. */
TAVIPC_API int ipc_req_manager_insert(ipc_req_manager_st *manager, uint32_t reqid, void *record,
                                      int64_t expire_ms) TAVIPC_NOEXCEPT;
/* Returns 0 and stores the record in *record (record may be null) if the id is found; else returns non-zero.
 * The record stays in the table. */
TAVIPC_API int ipc_req_manager_find(const ipc_req_manager_st *manager, uint32_t reqid,
                                    void **record) TAVIPC_NOEXCEPT;
/* Removes and releases the record; an unknown id is ignored. */
TAVIPC_API void ipc_req_manager_remove(ipc_req_manager_st *manager, uint32_t reqid) TAVIPC_NOEXCEPT;
/* Takes out the earliest expiry before now_ms whose id is in the table, and stores that id and its record;
 * the request stays in the table, and this expiry is not reported again. Returns 0; 1 if there is no such
 * expiry, or an argument is null. The ticks of the manager's timer take out expiries, too. */
TAVIPC_API int ipc_req_manager_pop_timeout(ipc_req_manager_st *manager, int64_t now_ms, uint32_t *reqid,
                                           void **record) TAVIPC_NOEXCEPT;
/* Visits all requests, until a visitor returns non-zero. The visitor may insert and remove requests. */
TAVIPC_API void ipc_req_manager_walk(ipc_req_manager_st *manager,
                                     int (*visit)(uint32_t reqid, void *record, void *argument),
                                     void *argument) TAVIPC_NOEXCEPT;
/* Returns the number of requests in the table. */
TAVIPC_API uint32_t ipc_req_manager_count(const ipc_req_manager_st *manager) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_IPC_REQ_MANAGER_H */
