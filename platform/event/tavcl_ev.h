/* tavcl_ev.h - the agent's event library: loop, timers, Unix datagram sockets.
 *
 * This header is the contract that any replacement of libtavcl_ev must meet.
 *
 *  1. There is one loop per thread, made on first use. A timer or socket belongs to the loop of the
 *     thread that made it; all its callbacks run on that thread, from inside the loop, never from
 *     inside the call that started the operation. Handles must not be used from another thread.
 *  2. Handles are values; 0 is "none". A handle is never reused: one that is closed, stopped or has
 *     fired is recognised as stale, and every function given a stale handle or 0 does nothing (and
 *     reports failure where it has a result).
 *  3. A callback may call anything in this header: start and stop timers (its own included), send,
 *     close the very socket that called it, stop the loop, run the loop nested.
 *  4. No function throws; no function writes to standard output or error.
 */
#ifndef TAVIPC_TAVCL_EV_H
#define TAVIPC_TAVCL_EV_H

#include <stddef.h>
#include <stdint.h>
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

/* Results of a send (and of a receive: 0 or one of the errors). */
enum cl_ev_status {
    CL_EV_OK = 0,          /* sent / received */
    CL_EV_IO = 1,          /* any other failure of the system call */
    CL_EV_NO_PEER = 2,     /* nobody listens at the destination: missing or stale socket file */
    CL_EV_TOO_BIG = 3,     /* larger than the socket can carry; on receive: datagram was truncated */
    CL_EV_WOULD_BLOCK = 4, /* the destination took nothing for the send-wait time */
    CL_EV_CANCELLED = 5    /* the socket was closed before the datagram left */
};

/* Text for a status (also for values outside the enumeration): constant, never null. */
CL_EV_API const char *cl_ev_strerror(int status) CL_EV_NOEXCEPT;

/* --- loop ------------------------------------------------------------------------------------ */

/* Milliseconds of CLOCK_MONOTONIC, read afresh at each call: since boot, so never 0 in practice.
 * Timers are measured on this clock. */
CL_EV_API uint64_t cl_event_loop_now(void) CL_EV_NOEXCEPT;

/* Runs this thread's loop until cl_event_loop_stop, or until neither a timer, a receiving socket nor a
 * pending send is left. Returns 0 when nothing is left, 1 when stopped, -1 when no loop can be made. */
CL_EV_API int cl_event_loop_run(void) CL_EV_NOEXCEPT;

/* One turn of this thread's loop: waits at most timeout_ms milliseconds (0: does not wait; negative: as
 * long as it takes) for something to do, and does it. Returns 1 when something is left to wait for, 0
 * when not, -1 when no loop can be made. */
CL_EV_API int cl_event_loop_run_once(int timeout_ms) CL_EV_NOEXCEPT;

/* Makes the innermost cl_event_loop_run of this thread return after the current callbacks. A stop while
 * no run is active has no effect on a later run. */
CL_EV_API void cl_event_loop_stop(void) CL_EV_NOEXCEPT;

/* Lets this thread's sockets and timers live on the caller's own libuv loop, which the caller runs with
 * uv_run (a nested run in a callback forgets a uv_stop of the same turn). Must come before anything else of
 * this header is used on the thread, and the loop must outlive all of it: call cl_event_loop_release before
 * uv_loop_close. Returns 0, or -1 when the thread already has a loop, or uv_loop is null, or memory is
 * short. */
struct uv_loop_s;
CL_EV_API int cl_event_loop_attach(struct uv_loop_s *uv_loop) CL_EV_NOEXCEPT;

/* Closes everything that this thread's loop still holds (pending sends are cancelled, timers dropped)
 * and forgets the loop. Runs by itself when the thread ends. Does nothing when it is called from a callback
 * or while the loop runs. */
CL_EV_API void cl_event_loop_release(void) CL_EV_NOEXCEPT;

/* --- timers ---------------------------------------------------------------------------------- */

/* Calls callback(argument) once, when cl_event_loop_now() has reached the current value plus delay_ms,
 * on a later turn of the loop (also when delay_ms is 0). Any 64-bit delay is allowed. Returns the timer,
 * or 0 when none can be made or callback is null. */
CL_EV_API cl_timer_t cl_timer_start(uint64_t delay_ms, void (*callback)(void *argument),
                                    void *argument) CL_EV_NOEXCEPT;

/* After this returns the timer's callback does not run, even if it was already due. */
CL_EV_API void cl_timer_stop(cl_timer_t timer) CL_EV_NOEXCEPT;

/* --- Unix datagram sockets ------------------------------------------------------------------- */

/* Fills *address from a path. Returns 0; -1 when either is null, or the path is empty or longer than
 * 107 bytes (the record is then empty, len 0). */
CL_EV_API int cl_sockaddr_un_init(cl_sockaddr_t *address, const char *path) CL_EV_NOEXCEPT;

/* Makes a datagram socket bound to *address. Missing directories of the path are made (mode 0755 under
 * the umask). A stale socket file at the path (its owner is gone) is replaced; a live one, or a file that
 * is no socket, is left alone and the call fails. The two further arguments are reserved, pass 0.
 * Returns the socket, or 0 with errno set. */
CL_EV_API cl_dunix_t cl_dunix_create(const cl_sockaddr_t *address, void *reserved1,
                                     void *reserved2) CL_EV_NOEXCEPT;

/* Closes the socket and removes its file, if that file is still the one it made. Every send that is
 * still pending completes with CL_EV_CANCELLED from inside this call, and none afterwards; no data
 * pointer is read after it. The two further arguments are reserved, pass 0. */
CL_EV_API void cl_dunix_close(cl_dunix_t socket, void (*reserved1)(void *), void *reserved2) CL_EV_NOEXCEPT;

/* A received datagram: data holds len bytes, valid and aligned to 16 until the callback returns (an empty
 * datagram has len 0 and data not null). from is the sender's address (len 0 when it has no name), valid
 * as long. status is 0, or an error with data null. context is the one given to cl_dunix_recv_start. */
typedef void (*cl_dunix_recv_cb)(cl_dunix_t socket, const void *data, uint32_t len, const cl_sockaddr_t *from,
                                 int status, void *context);

/* Starts reception, or replaces the callback and context of one already started. At most 64 datagrams
 * are delivered per turn of the loop, so that timers and other sockets get theirs. Returns 0, or -1. */
CL_EV_API int cl_dunix_recv_start(cl_dunix_t socket, cl_dunix_recv_cb callback, void *context) CL_EV_NOEXCEPT;

/* Completion of one accepted send; status is one of enum cl_ev_status. */
typedef void (*cl_dunix_send_cb)(cl_dunix_t socket, int status, void *context);

/* Sends data (len bytes, not copied: it must stay valid and unchanged until the completion) to *address
 * (copied). Datagrams from one socket to one destination leave in the order of the calls. When the
 * destination is full they wait, at no cost of CPU time and without holding up other destinations, until
 * it reads; when it has read nothing for the send-wait time, all that wait complete with
 * CL_EV_WOULD_BLOCK. Returns 0 when the datagram was accepted: callback (may be null) then runs exactly
 * once, on a later turn of the loop, from cl_dunix_settle or from cl_dunix_close. Returns non-zero, and never
 * calls the callback, when the socket is not valid, address or data is null, or memory is short. Errors of
 * the system call are reported to the callback. */
CL_EV_API int cl_dunix_sendto2(cl_dunix_t socket, const cl_sockaddr_t *address, const void *data,
                               uint32_t len, cl_dunix_send_cb callback, void *context) CL_EV_NOEXCEPT;

/* If the data of this thread's sends whose outcome is known amount to so many bytes or more, completes them
 * in order, up to the first whose callback is another than this one: so nobody else's code runs. Else does
 * nothing, at the cost of a comparison. For who sends much without letting the loop run, so that few buffers
 * serve for many datagrams. A library in place of this one may lack it. */
CL_EV_API void cl_dunix_settle(size_t bytes, cl_dunix_send_cb callback) CL_EV_NOEXCEPT;

/* Sets, for this thread's loop, the time in milliseconds without progress at a destination after which
 * waiting sends complete with CL_EV_WOULD_BLOCK. The default is 1000; 0 reports a full destination on
 * the next turn of the loop. */
CL_EV_API void cl_dunix_set_send_wait(uint64_t wait_ms) CL_EV_NOEXCEPT;

#ifdef __cplusplus
}
static_assert(sizeof(cl_sockaddr_t) == 112, "the address record is part of the queue record's layout");
#endif
#endif /* TAVIPC_TAVCL_EV_H */
