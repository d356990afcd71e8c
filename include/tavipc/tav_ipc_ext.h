/* tav_ipc_ext.h - additions to tav_ipc.h: exchanges that can be cancelled, a response whose result is known,
 * and waiting until everything has left.
 *
 * The functions carry the symbol version TAVIPC_1. The rules of tav_ipc.h for lifetimes and threads hold here
 * too.
 */
#ifndef TAVIPC_TAV_IPC_EXT_H
#define TAVIPC_TAV_IPC_EXT_H

#include <stdint.h>

#include "tav_api.h"
#include "tav_ipc.h"

/* Code of an exchange that tav_ipc_exchange_cancel ended. */
#define IPC_ERR_CANCELLED (-113)

/* What an exchange sends, and what completes it with code 0. */
enum tav_ipc_exchange_kind {
    TAV_IPC_EXCHANGE_REQUEST = 0,   /* a request; the response of the peer's application */
    TAV_IPC_EXCHANGE_CONFIRMED = 1, /* a message; the acknowledgement of the peer's library */
    TAV_IPC_EXCHANGE_PROBE = 2      /* an empty message that the peer's application does not see; the same */
};

/* Completion of the exchange id. code is 0, or negative, or positive if the peer sent such a code. A response
 * has its command code in cmd and its payload in data (len bytes, valid until the callback returns); in all
 * other cases cmd is 0, data null and len 0. The callback may do anything, also destroy the endpoint. */
typedef void (*tav_ipc_exchange_cb)(uint64_t id, int32_t code, uint32_t cmd, const void *data, uint32_t len,
                                    void *user);

TAVIPC_BEGIN_DECLS

/* Starts an exchange with dest and returns its id, which the process uses once. The callback (may be null)
 * runs exactly once, and never inside this call: with the answer; with IPC_ERR_TIMEOUT when timeout_ms
 * milliseconds of the monotonic clock have passed; with IPC_ERR_CANCELLED; or with IPC_ERR_CLOSED from inside
 * tav_ipc_destroy. A probe ignores cmd, data, size and the flags of dest.
 * On failure returns 0, and the callback never runs. errno is then EINVAL (ipc or dest is null, the kind is
 * unknown, dest's name is empty or contains a "/"), EMSGSIZE (size is over TAV_IPC_MESSAGE_MAX), ESHUTDOWN
 * (the endpoint is being destroyed), ENOMEM, or ENOBUFS (too much is in flight to dest). */
TAVIPC_API uint64_t tav_ipc_exchange_start(tav_ipc_st *ipc, int kind, const tav_addr_st *dest, uint32_t cmd,
                                           const void *data, uint32_t size, uint32_t timeout_ms,
                                           tav_ipc_exchange_cb callback, void *user) TAVIPC_NOEXCEPT;

/* Ends the exchange id of the same endpoint: its callback runs inside this call with IPC_ERR_CANCELLED, and a
 * later answer is ignored. The message itself is not taken back. Returns 0; -1 with errno ENOENT if the
 * exchange is unknown, has completed, or is completing. */
TAVIPC_API int tav_ipc_exchange_cancel(tav_ipc_st *ipc, uint64_t id) TAVIPC_NOEXCEPT;

/* As tav_ipc_response, but returns the result: 0 when the response was sent or queued; IPC_ERR_SENDTO when it
 * was refused, for the reasons of tav_ipc_send or because reqid is 0. */
TAVIPC_API int tav_ipc_response2(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t reqid, uint32_t cmd,
                                 const void *data, uint32_t size) TAVIPC_NOEXCEPT;

/* What became of the messages that an endpoint had accepted. */
typedef struct tav_ipc_flush_st {
    uint64_t left;    /* messages that left completely, during this call */
    uint64_t dropped; /* messages of which at least one datagram was dropped, during this call */
    uint64_t pending; /* messages that have neither left nor been dropped when it returns */
} tav_ipc_flush_st;

/* Runs this thread's event loop until every message that the endpoint accepted has left or has been dropped,
 * also those that callbacks send meanwhile, or until timeout_ms milliseconds have passed (0: one turn without
 * a wait; negative: no limit). All callbacks of the loop run, and may do anything. A callback may call this
 * function, the sink of a log line may not: the message that the line is about could not be settled
 * meanwhile. result may be null. Returns 0 when nothing is pending; 1 when the time is over, or when nothing
 * is left in the loop that could settle a message; -1 with errno EINVAL (ipc is null), EDEADLK (called in a
 * log sink), ESHUTDOWN (the endpoint is destroyed, perhaps by a callback meanwhile; result has what is
 * known), or ENOTSUP (the event library has no loop to run). */
TAVIPC_API int tav_ipc_flush(tav_ipc_st *ipc, int timeout_ms, tav_ipc_flush_st *result) TAVIPC_NOEXCEPT;

/* Stores the number of messages that the endpoint accepted and that have neither left completely nor been
 * dropped, and the bytes of their datagrams that have not left (headers included). Either pointer may be
 * null. Returns 0; -1 with errno EINVAL when ipc is null. */
TAVIPC_API int tav_ipc_pending(tav_ipc_st *ipc, uint64_t *messages, uint64_t *bytes) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_IPC_EXT_H */
