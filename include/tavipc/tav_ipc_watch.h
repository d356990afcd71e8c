/* tav_ipc_watch.h - callbacks when a peer's endpoint appears, goes or is replaced.
 *
 * A peer is present when a process has its socket open; the file alone, which a killed process leaves behind,
 * does not count. A peer that opens or closes its endpoint is noticed at once. One that ends without closing
 * it (killed, crashed) is noticed within a second, because the kernel reports no event for it. The same holds
 * for all changes if the event library has no cl_io_start, or no inotify descriptor can be made. A change
 * that is undone within this second may stay unnoticed. A watch covers the endpoint's own location only; it
 * cannot show whether a proxy reaches a peer of another location.
 *
 * The functions carry the symbol version TAVIPC_1. The rules of tav_ipc.h for lifetimes and threads hold here
 * too.
 */
#ifndef TAVIPC_TAV_IPC_WATCH_H
#define TAVIPC_TAV_IPC_WATCH_H

#include <stdint.h>

#include "tav_api.h"
#include "tav_ipc.h"

enum tav_ipc_watch_event {
    TAV_IPC_WATCH_WENT = 0,     /* the peer is not present, or no longer */
    TAV_IPC_WATCH_APPEARED = 1, /* the peer is present */
    TAV_IPC_WATCH_REPLACED = 2  /* the peer is present, but it is another socket than before: what was sent to
                                   the old one may be lost */
};

/* The first call for a watch says whether the peer is present: TAV_IPC_WATCH_APPEARED or TAV_IPC_WATCH_WENT.
 * Each later call is a change. name is the one that was given, valid until the callback returns. The callback
 * may do anything, also end this and other watches and destroy the endpoint. */
typedef void (*tav_ipc_watch_cb)(uint64_t id, int event, const char *name, void *user);

TAVIPC_BEGIN_DECLS

/* Watches the peer endpoint of that name (1 to TAV_IPC_NAME_MAX characters, copied; it need not exist). The
 * callback runs on the loop, never inside this call, until tav_ipc_unwatch or tav_ipc_destroy, which do not
 * call it. Returns the watch's id, which the process uses once; 0 with errno EINVAL (ipc, name or callback is
 * null, or the name cannot be an endpoint's), ESHUTDOWN (the endpoint is being destroyed) or ENOMEM. */
TAVIPC_API uint64_t tav_ipc_watch(tav_ipc_st *ipc, const char *name, tav_ipc_watch_cb callback,
                                  void *user) TAVIPC_NOEXCEPT;

/* Ends a watch of the same endpoint: its callback does not run after this call. Returns 0; -1 with errno
 * ENOENT when there is no such watch, or EINVAL when ipc is null. */
TAVIPC_API int tav_ipc_unwatch(tav_ipc_st *ipc, uint64_t id) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_IPC_WATCH_H */
