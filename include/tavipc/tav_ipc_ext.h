/* tav_ipc_ext.h - additions to tav_ipc.h: exchanges that can be cancelled, a response whose result is known,
 * callbacks that can be unset, and waiting until everything has left.
 *
 * The functions carry the symbol version TAVIPC_1. The rules of tav_ipc.h for lifetimes and threads hold here
 * too.
 */
#ifndef TAVIPC_TAV_IPC_EXT_H
#define TAVIPC_TAV_IPC_EXT_H

#include <stdint.h>

#include "tav_api.h"
#include "tav_ipc.h"

#define IPC_ERR_CANCELLED (-113) /* tav_ipc_exchange_cancel or tav_ipc_file_cancel ended it */
#define IPC_ERR_NO_PEER (-114)   /* no endpoint has the destination's name */

/* What an exchange sends, and what completes it with code 0. */
enum tav_ipc_exchange_kind {
    TAV_IPC_EXCHANGE_REQUEST = 0,   /* a request; the response of the peer's application */
    TAV_IPC_EXCHANGE_CONFIRMED = 1, /* a message; the acknowledgement of the peer's library */
    TAV_IPC_EXCHANGE_PROBE = 2,     /* an empty message that the peer's application does not see; the same */
    /* Added to one of these: without a peer, the message is tried again until one is there or the time-out
     * has passed. */
    TAV_IPC_EXCHANGE_WAIT_FOR_PEER = 0x100
};

/* Completion of the exchange id. code is 0, or negative, or positive if the peer sent such a code. A response
 * has its command code in cmd and its payload in data (len bytes, valid until the callback returns); in all
 * other cases cmd is 0, data null and len 0. The callback may do anything, also destroy the endpoint. */
typedef void (*tav_ipc_exchange_cb)(uint64_t id, int32_t code, uint32_t cmd, const void *data, uint32_t len,
                                    void *user);

TAVIPC_BEGIN_DECLS

/* Starts an exchange with dest and returns its id, which the process uses once. kind is a value of
 * tav_ipc_exchange_kind, perhaps with TAV_IPC_EXCHANGE_WAIT_FOR_PEER. cmd, data (size bytes; null: zeros) and
 * dest are those of tav_ipc_send, and copied. A probe ignores cmd, data, size and the flags of dest. The
 * callback (may be null) runs exactly once, and never inside this call:
 *   - with the answer
 *   - with IPC_ERR_TIMEOUT when timeout_ms milliseconds of the monotonic clock have passed
 *   - with IPC_ERR_NO_PEER as soon as the kernel has refused the message because no endpoint of this location
 *     has dest's name, also if the peer went while the message waited. Not with
 *     TAV_IPC_EXCHANGE_WAIT_FOR_PEER, and not through a proxy endpoint to another location. A peer that goes
 *     after it has taken the message does not end the exchange.
 *   - with IPC_ERR_CANCELLED from inside tav_ipc_exchange_cancel
 *   - with IPC_ERR_CLOSED from inside tav_ipc_destroy, or when a later exchange gets the same message id
 *     (after 4,294,967,295 messages of the process)
 * On failure returns 0, and the callback never runs. errno is then:
 *   - EINVAL: ipc or dest is null, the kind is unknown, or dest's name is empty, "." or "..", or has a "/"
 *   - EMSGSIZE: size is over TAV_IPC_MESSAGE_MAX
 *   - ESHUTDOWN: the endpoint is being destroyed
 *   - ENOMEM: memory for the exchange is short (the message may have been sent)
 *   - ENOBUFS: the message was refused, because too much is in flight to dest, memory for the message is
 *     short, the path of the socket to send to has more than 107 bytes, or the endpoint belongs to the
 *     process that forked this one */
TAVIPC_API uint64_t tav_ipc_exchange_start(tav_ipc_st *ipc, int kind, const tav_addr_st *dest, uint32_t cmd,
                                           const void *data, uint32_t size, uint32_t timeout_ms,
                                           tav_ipc_exchange_cb callback, void *user) TAVIPC_NOEXCEPT;

/* Ends the exchange id of the same endpoint: its callback runs inside this call with IPC_ERR_CANCELLED, and a
 * later answer is ignored. The message itself is not taken back. Returns 0; -1 with errno ENOENT if ipc is
 * null, or the exchange is unknown, has completed, or is completing. */
TAVIPC_API int tav_ipc_exchange_cancel(tav_ipc_st *ipc, uint64_t id) TAVIPC_NOEXCEPT;

/* As tav_ipc_response, but returns the result: 0 when the response was sent or queued; IPC_ERR_SENDTO when it
 * was refused, for the reasons of tav_ipc_send or because reqid is 0. */
TAVIPC_API int tav_ipc_response2(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t reqid, uint32_t cmd,
                                 const void *data, uint32_t size) TAVIPC_NOEXCEPT;

/* Callbacks of an endpoint, for tav_ipc_unset_callbacks. */
enum tav_ipc_callback {
    TAV_IPC_CALLBACK_MESSAGE = 1, /* tav_ipc_msg_recv */
    TAV_IPC_CALLBACK_REQUEST = 2, /* tav_ipc_on_request */
    TAV_IPC_CALLBACK_FILE = 4     /* tav_ipc_file_recv, and tav_ipc_on_file of tav_ipc_file_ext.h */
};

/* Unsets each callback whose bit is in callbacks; the functions that set one refuse null. It takes effect at
 * once, also inside the callback itself. What arrives then:
 *   - a message is dropped; if it is a confirmed one the library still acknowledges it
 *   - a request goes to the message callback, and is dropped if there is none: the requester times out
 *   - a file is still saved and acknowledged, and removed 5 to 6 minutes after its last data
 * Returns 0; -1 with errno EINVAL if ipc is null or callbacks has another bit. */
TAVIPC_API int tav_ipc_unset_callbacks(tav_ipc_st *ipc, unsigned callbacks) TAVIPC_NOEXCEPT;

/* What became of the messages that an endpoint had accepted. */
typedef struct tav_ipc_flush_st {
    uint64_t left;    /* messages that left completely, during this call */
    uint64_t dropped; /* messages of which at least one datagram was dropped, during this call */
    uint64_t pending; /* messages that have neither left nor been dropped when it returns */
} tav_ipc_flush_st;

/* Runs this thread's event loop until every message that the endpoint accepted has left or has been dropped,
 * also those that callbacks send meanwhile, or until timeout_ms milliseconds have passed (0: one turn without
 * a wait; negative: no limit). When nothing is pending it returns 0 and runs no turn, whatever timeout_ms is.
 * All callbacks of the loop run, and may do anything. A callback may call this function, the sink of a log
 * line may not: the message that the line is about could not be settled meanwhile. result may be null.
 * Returns 0 when nothing is pending; 1 when the time is over, or when nothing is left in the loop that could
 * settle a message; -1 with errno EINVAL (ipc is null), EDEADLK (called in a log sink), ESHUTDOWN (the
 * endpoint is destroyed, perhaps by a callback meanwhile; result has what is known), or ENOTSUP (the event
 * library has no cl_event_loop_run_once, or can make no loop). */
TAVIPC_API int tav_ipc_flush(tav_ipc_st *ipc, int timeout_ms, tav_ipc_flush_st *result) TAVIPC_NOEXCEPT;

/* Stores the number of messages that the endpoint accepted and that have neither left completely nor been
 * dropped, and the bytes of their datagrams that have not left (headers included). Either pointer may be
 * null. Returns 0; -1 with errno EINVAL when ipc is null. */
TAVIPC_API int tav_ipc_pending(tav_ipc_st *ipc, uint64_t *messages, uint64_t *bytes) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_IPC_EXT_H */
