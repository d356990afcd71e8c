/* tavcl_ev.h - the agent's event library: loop, timers, Unix datagram sockets.
 *
 * This header is the contract that any replacement of libtavcl_ev must meet.
 *
 *  1. Each thread has one loop, made on first use. A timer or socket belongs to the loop of the thread that
 *     made it. All its callbacks run on that thread, from inside the loop, never from inside the call that
 *     started the operation. Handles must not be used from another thread.
 *  2. Handles are values; 0 is "none". A handle is never reused: one that is closed, stopped or has fired is
 *     recognised as stale. Every function that is given a stale handle or 0 does nothing, and reports failure
 *     if it has a result.
 *  3. A callback may call anything in this header: start and stop timers (its own included), send, close the
 *     very socket that called it, stop the loop, run the loop nested.
 *  4. No function throws; no function writes to standard output or error.
 *  5. fork may be called anywhere but in a signal handler, also in a callback. Nothing changes for the
 *     parent. In the child:
 *       - The loop of the forking thread is gone and all its handles are stale. Its sockets and those of the
 *         other threads are closed, also if the forking thread never used this library. Their files stay.
 *       - No callback of the parent's sends and timers runs.
 *       - Timers and sockets of its own can be made at once.
 *       - If a callback forked, its cl_event_loop_run returns 0 when the callback has returned; a nested one
 *         returns first.
 *       - The copy of a caller's libuv loop (cl_event_loop_attach) is left alone and keeps handles that never
 *         become active, so it cannot be closed. uv_loop_fork may be called on it, and it may be attached
 *         again.
 *     Not covered: _Fork, vfork and clone.
 *
 * libtavipc does without some of these functions, so a replacement may lack them:
 *   - cl_dunix_send_now: every datagram is then copied and given to cl_dunix_sendto2
 *   - cl_dunix_settle: sends then complete on turns of the loop only
 *   - cl_event_loop_run_once: tav_ipc_flush then fails with ENOTSUP
 *   - cl_event_loop_run, cl_event_loop_stop, cl_event_loop_attach, cl_event_loop_release and
 *     cl_dunix_set_send_wait: only programs call them
 */
#ifndef TAVIPC_TAVCL_EV_H
#define TAVIPC_TAVCL_EV_H

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>
#include <sys/un.h>

#ifdef __cplusplus
#define CL_EV_NOEXCEPT noexcept
extern "C" {
#else
#define CL_EV_NOEXCEPT
#endif
#define CL_EV_API __attribute__((visibility("default")))

typedef uint64_t cl_timer_t; /* 0 = none */
typedef uint64_t cl_dunix_t; /* 0 = none */

/* A Unix socket address: exactly 112 bytes, copied by value. Fill it with cl_sockaddr_un_init. */
typedef struct cl_sockaddr {
    struct sockaddr_un addr; /* 110 bytes */
    uint16_t len;            /* bytes of addr in use, 0 = empty record */
} cl_sockaddr_t;

/* Results of a send, and of a receive (0 or one of the errors). */
enum cl_ev_status {
    CL_EV_OK = 0,          /* sent / received */
    CL_EV_IO = 1,          /* any other failure of the system call */
    CL_EV_NO_PEER = 2,     /* no listener at the destination: missing or stale socket file */
    CL_EV_TOO_BIG = 3,     /* larger than the socket can carry; on receive: truncated */
    CL_EV_WOULD_BLOCK = 4, /* the destination read nothing for the send-wait time */
    CL_EV_CANCELLED = 5    /* the socket was closed before the datagram left */
};

/* Returns the text for any status, also outside the enumeration: constant, never null. */
CL_EV_API const char *cl_ev_strerror(int status) CL_EV_NOEXCEPT;

/* --- loop ------------------------------------------------------------------------------------ */

/* Returns milliseconds of CLOCK_MONOTONIC, read at each call. They count from boot, so the result is never 0
 * in practice. Timers use this clock. */
CL_EV_API uint64_t cl_event_loop_now(void) CL_EV_NOEXCEPT;

/* Runs this thread's loop until cl_event_loop_stop, or until nothing is left to wait for: no timer, receiving
 * socket, pending send, watch or posted function (tavcl_loop.h). Returns 0 when nothing is left, 1 when
 * stopped, -1 when no loop can be made. */
CL_EV_API int cl_event_loop_run(void) CL_EV_NOEXCEPT;

/* Runs one turn of this thread's loop: waits up to timeout_ms milliseconds for work (0: does not wait;
 * negative: without limit), and does it. When nothing is left to wait for (see cl_event_loop_run) it returns
 * 0 at once; on an attached loop it may still wait for the caller's own handles. A thread that only waits for
 * calls from other threads must therefore keep a timer, for example with a delay of UINT64_MAX. Returns 1
 * when something is left to wait for, else 0; -1 when no loop can be made. */
CL_EV_API int cl_event_loop_run_once(int timeout_ms) CL_EV_NOEXCEPT;

/* Makes the innermost cl_event_loop_run of this thread return after the current callbacks. Without an active
 * run it does nothing, also to a later run. */
CL_EV_API void cl_event_loop_stop(void) CL_EV_NOEXCEPT;

/* Puts this thread's sockets and timers on the caller's own libuv loop, which the caller runs with uv_run. (A
 * nested run in a callback forgets a uv_stop of the same turn.) Call it before anything else of this header
 * on the thread. The loop must outlive all sockets and timers: call cl_event_loop_release before
 * uv_loop_close. Returns 0; -1 when the thread already has a loop, uv_loop is null, or memory is short. */
struct uv_loop_s;
CL_EV_API int cl_event_loop_attach(struct uv_loop_s *uv_loop) CL_EV_NOEXCEPT;

/* Closes everything that this thread's loop still holds (pending sends are cancelled, timers dropped) and
 * deletes the loop. The end of the thread does the same. Does nothing in a callback or while the loop runs.
 */
CL_EV_API void cl_event_loop_release(void) CL_EV_NOEXCEPT;

/* --- timers ---------------------------------------------------------------------------------- */

/* Calls callback(argument) once, when cl_event_loop_now() has reached its current value plus delay_ms, on a
 * later turn of the loop (also when delay_ms is 0). Any 64-bit delay is allowed. Returns the timer, or 0 when
 * none can be made or callback is null. */
CL_EV_API cl_timer_t cl_timer_start(uint64_t delay_ms, void (*callback)(void *argument),
                                    void *argument) CL_EV_NOEXCEPT;

/* Stops a timer. Its callback does not run after this call, even if it was already due. */
CL_EV_API void cl_timer_stop(cl_timer_t timer) CL_EV_NOEXCEPT;

/* --- Unix datagram sockets ------------------------------------------------------------------- */

/* Fills *address from a path. Returns 0; -1 when either is null, or the path is empty or longer than 107
 * bytes: the record is then empty (len 0). */
CL_EV_API int cl_sockaddr_un_init(cl_sockaddr_t *address, const char *path) CL_EV_NOEXCEPT;

/* Makes a datagram socket bound to *address. Creates missing directories of the path (mode 0755 under the
 * umask). Replaces a stale socket file (its owner is gone). A live socket, or another kind of file, is left
 * alone and the call fails. The two other arguments are reserved, pass 0. Returns the socket, or 0 with errno
 * set: EINVAL (address is null, or not a path of 1 to 107 bytes without a final slash), EADDRINUSE (another
 * process has the path, or it is no socket), ENOMEM, or as mkdir(2), socket(2) and bind(2). */
CL_EV_API cl_dunix_t cl_dunix_create(const cl_sockaddr_t *address, void *reserved1,
                                     void *reserved2) CL_EV_NOEXCEPT;

/* Closes the socket and removes its file, if that is still the file it made. Every send that is still pending
 * completes with CL_EV_CANCELLED from inside this call, and none afterwards. No data pointer is read after
 * it. The two other arguments are reserved, pass 0. */
CL_EV_API void cl_dunix_close(cl_dunix_t socket, void (*reserved1)(void *), void *reserved2) CL_EV_NOEXCEPT;

/* A received datagram: data holds len bytes, valid until the callback returns and aligned to 16 bytes. (An
 * empty datagram has len 0 and data not null.) from is the sender's address (len 0 when it has no name),
 * valid as long. status is 0, or an error with data null. context is the one given to cl_dunix_recv_start. */
typedef void (*cl_dunix_recv_cb)(cl_dunix_t socket, const void *data, uint32_t len, const cl_sockaddr_t *from,
                                 int status, void *context);

/* Starts reception, or replaces the callback and context if it has started already. Datagrams of up to 65,536
 * bytes are delivered whole, at most 64 in one turn of the loop, so that timers and other sockets are served
 * as well. Returns 0; -1 when the socket is not valid, callback is null or memory is short. */
CL_EV_API int cl_dunix_recv_start(cl_dunix_t socket, cl_dunix_recv_cb callback, void *context) CL_EV_NOEXCEPT;

/* Completion of one accepted send; status is one of enum cl_ev_status. */
typedef void (*cl_dunix_send_cb)(cl_dunix_t socket, int status, void *context);

/* Sends len bytes of data to *address. The address is copied; the data is not, and must stay valid and
 * unchanged until the completion. Datagrams from one socket to one destination leave in the order of the
 * calls. When the destination is full they wait until it reads, without using CPU time and without delaying
 * other destinations. When it has read nothing for the send-wait time, all that wait complete with
 * CL_EV_WOULD_BLOCK. Returns 0 when the datagram was accepted: callback (may be null) then runs exactly once,
 * on a later turn of the loop, from cl_dunix_settle or from cl_dunix_close. Returns non-zero, and never calls
 * the callback, when the socket is not valid, address or data is null, or memory is short. Errors of the
 * system call go to the callback, and CL_EV_IO for a record that is not the address of a Unix socket. */
CL_EV_API int cl_dunix_sendto2(cl_dunix_t socket, const cl_sockaddr_t *address, const void *data,
                               uint32_t len, cl_dunix_send_cb callback, void *context) CL_EV_NOEXCEPT;

/* Sends a datagram that consists of `count` parts, one after the other, now or not at all. The kernel copies
 * the parts before the call returns. Returns CL_EV_OK when the datagram has left. It leaves behind all that
 * the socket was given for this destination. Nothing is sent, kept or called back when the result is another
 * one: CL_EV_WOULD_BLOCK when the destination is full, earlier datagrams wait for it, or the loop batches
 * (tavcl_loop.h); CL_EV_NO_PEER, CL_EV_TOO_BIG or CL_EV_IO as in a completion; -1 when the socket is not
 * valid, address or parts is null, count is 0 or memory is short. cl_dunix_sendto2 may follow, which can
 * wait. A library in place of this one may lack it. */
CL_EV_API int cl_dunix_send_now(cl_dunix_t socket, const cl_sockaddr_t *address, const struct iovec *parts,
                                size_t count) CL_EV_NOEXCEPT;

/* Completes sends whose datagrams have left before the next turn of the loop. A sender of much data that does
 * not let the loop run can thereby use few buffers for many datagrams.
 *   If the data of this thread's sends that have left total at least `bytes`, their callbacks run, in the
 * order in which the sends finished. It stops at the first send whose callback is not `callback`, so no other
 * code runs. If they total less it does nothing, at the cost of a comparison. Sends that failed complete on
 * the next turn of the loop: a sender that tries them again at once might never let it run. With 0 bytes the
 * datagrams of batches (tavcl_loop.h) leave first. Inside the callback of a send it does nothing: the other
 * sends complete when that callback has returned. A library in place of this one may lack it. */
CL_EV_API void cl_dunix_settle(size_t bytes, cl_dunix_send_cb callback) CL_EV_NOEXCEPT;

/* Sets the send-wait time of this thread's loop: the milliseconds without progress at a destination after
 * which the sends that wait complete with CL_EV_WOULD_BLOCK. The default is 1000; 0 reports a full
 * destination on the next turn of the loop. */
CL_EV_API void cl_dunix_set_send_wait(uint64_t wait_ms) CL_EV_NOEXCEPT;

#ifdef __cplusplus
}
static_assert(sizeof(cl_sockaddr_t) == 112, "the address record is part of the queue record's layout");
#endif
#endif /* TAVIPC_TAVCL_EV_H */
