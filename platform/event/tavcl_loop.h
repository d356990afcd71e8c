/* tavcl_loop.h - additions to the agent's event library: the loop inside another loop, calls from other
 * threads and from signal handlers, watches for descriptors and signals, settings that trade CPU time or
 * delay for speed.
 *
 * The rules of tavcl_ev.h hold here, too: handles are values and never reused, a callback may call anything,
 * fork makes all handles stale in the child. Two functions may be called from any thread: cl_event_loop_wake
 * and cl_event_loop_post. Two may be called in a signal handler: cl_event_loop_wake, and cl_event_loop_stop
 * of tavcl_ev.h. A library in place of this one may lack all functions of this header: without
 * cl_io_start libtavipc notices no monitors, and notices peers up to a second late.
 */
#ifndef TAVIPC_TAVCL_LOOP_H
#define TAVIPC_TAVCL_LOOP_H

#include "tavcl_ev.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t cl_loop_t;   /* 0 = none */
typedef uint64_t cl_io_t;     /* 0 = none */
typedef uint64_t cl_signal_t; /* 0 = none */

/* --- this thread's loop inside another loop ----------------------------------------------------- */

/* Returns a descriptor for poll, epoll or another loop: it is readable when cl_event_loop_dispatch has work,
 * timers included. The caller only waits for it (level-triggered) and must not read or close it. It stays the
 * same until the loop is released; fork closes it in the child. Returns -1 when it cannot be made, or when
 * the thread's loop is an attached libuv loop (wait for that loop's uv_backend_fd, at most as long as its
 * uv_backend_timeout says). */
CL_EV_API int cl_event_loop_fd(void) CL_EV_NOEXCEPT;

/* Returns the milliseconds until this thread's loop has work that is known now: a timer, a finished send, a
 * posted function. 0: at once; -1: nothing is known. The library has timers of its own, so the result may be
 * earlier than the caller's first timer. A caller that waits for the descriptor needs no time-out. */
CL_EV_API int cl_event_loop_timeout(void) CL_EV_NOEXCEPT;

/* Runs one turn of this thread's loop without waiting. One turn does not always do all that is due: the
 * descriptor is then still readable. Returns as cl_event_loop_run_once: 1 when something is left to wait for,
 * else 0; -1 when no loop can be made. */
CL_EV_API int cl_event_loop_dispatch(void) CL_EV_NOEXCEPT;

/* --- from other threads and from signal handlers ------------------------------------------------- */

/* Returns the handle of this thread's loop, which is made on first use. It is stale once the loop is
 * released, the thread has ended, or in a forked child. Returns 0 when no loop can be made, and when 16,384
 * loops of other threads have a handle. Not for signal handlers. */
CL_EV_API cl_loop_t cl_event_loop_self(void) CL_EV_NOEXCEPT;

/* Ends the wait of a loop: cl_event_loop_run_once returns (the next one if the loop does not wait now),
 * cl_event_loop_run does a turn and waits again, and the descriptor of cl_event_loop_fd becomes readable. It
 * does not keep a loop waiting: one with nothing left to wait for returns at once (see
 * cl_event_loop_run_once). Any thread; async-signal-safe; leaves errno as it was. Returns 0, or -1 when the
 * handle is stale. */
CL_EV_API int cl_event_loop_wake(cl_loop_t loop) CL_EV_NOEXCEPT;

/* Runs function(argument) once on the loop's thread, on a later turn of the loop. Functions that one thread
 * posts run in the order of the calls. One that waits keeps cl_event_loop_run running, as a timer does.
 * Functions that have not run when the loop is released never run; the library does not touch their argument.
 * Any thread; not for signal handlers. Returns 0; -1 when the handle is stale, function is null or memory is
 * short: the function then never runs. */
CL_EV_API int cl_event_loop_post(cl_loop_t loop, void (*function)(void *argument),
                                 void *argument) CL_EV_NOEXCEPT;

/* --- speed ---------------------------------------------------------------------------------------- */

/* Busy polling: cl_event_loop_run and cl_event_loop_run_once of this thread look for work again and again for
 * this long before they sleep. On an attached loop uv_run and cl_event_loop_run do so, but not
 * cl_event_loop_run_once. What comes in that time is handled within a few microseconds instead of a wake-up
 * of the thread, which takes 25 to 50. The price is CPU time: each wait costs up to the given time of a core,
 * a thread whose work comes more often than that uses a whole core. The thread offers its core to others
 * meanwhile. Timers, signals and calls from other threads are served as always; a loop inside another loop
 * (cl_event_loop_fd) does not poll busily. 0, the default, turns it off. An operator can set the default with
 * the environment variable TAV_BUSY_POLL_US. The setting ends with the loop. Returns 0; -1 when no loop can
 * be made.
 *   Without the setting, a loop of the library's own looks for work for about 5 microseconds before it
 * sleeps, as long as it finds some in that time. If it does not, it tries again less and less often, down to
 * one sleep in 256. */
CL_EV_API int cl_event_loop_set_busy_poll(uint32_t microseconds) CL_EV_NOEXCEPT;

/* Batching: datagrams of this thread for destinations that are not full wait until the end of the loop's
 * turn, and those for one destination leave with one system call. A destination's datagrams leave earlier
 * when max_datagrams of them wait. All leave earlier when a send finds that the first one has waited
 * max_microseconds (0: no limit). They also leave when cl_event_loop_run, cl_event_loop_run_once or
 * cl_event_loop_dispatch returns, when a socket of the thread is closed, when the loop is released and when
 * the thread ends, exit included. On an attached loop, what is sent in libuv's poll or check phase leaves at
 * the start of the next turn, which may be that of the next uv_run. A thread that sends outside of its loop
 * must run a turn afterwards. The order for each destination is kept.
 *   A send that was accepted can be lost when the process is killed, ends without exit, or another thread
 * calls exit, before its batch leaves. Without batching, what the destination's queue has room for has left
 * when the send returns.
 *   Data must stay valid until the completion, as always. max_datagrams 0 or 1, the default, turns batching
 * off; what waits then leaves at once. An operator can set the defaults with the environment variables
 * TAV_BATCH_DATAGRAMS and TAV_BATCH_US. The setting ends with the loop. Returns 0; -1 when no loop can be
 * made.
 *   A text in one of the environment variables that is not a number from 0 to 4294967295 counts as 0. */
CL_EV_API int cl_event_loop_set_batching(uint32_t max_datagrams, uint32_t max_microseconds) CL_EV_NOEXCEPT;

/* --- watches for descriptors --------------------------------------------------------------------- */

enum cl_io_events {
    CL_IO_READ = 1, /* readable, or the other end has closed */
    CL_IO_WRITE = 2 /* writable */
};

/* events: those that are true now, of those watched. After an error or hang-up of the descriptor: all that
 * are watched; the caller's own read or write then meets the error. */
typedef void (*cl_io_cb)(cl_io_t io, int events, void *argument);

/* Calls callback on each turn of this thread's loop on which the descriptor is ready for one of the events
 * (level-triggered), until cl_io_stop. The watch keeps cl_event_loop_run running. The descriptor stays the
 * caller's: its flags are not changed, and release and fork do not close it. Stop the watch before closing
 * the descriptor. A loop takes one watch for a descriptor: a second one fails with EEXIST (watch both events
 * with one, or watch a dup of the descriptor). Returns the watch, or 0 with errno set (EPERM: a regular file
 * or directory, which is always ready; EINVAL: no or unknown events, or callback is null; ENOMEM; others as
 * epoll_ctl(2), for example EBADF). */
CL_EV_API cl_io_t cl_io_start(int fd, int events, cl_io_cb callback, void *argument) CL_EV_NOEXCEPT;

/* Stops a watch. Its callback does not run after this call, even if the descriptor was already ready. */
CL_EV_API void cl_io_stop(cl_io_t io) CL_EV_NOEXCEPT;

/* --- watches for signals ------------------------------------------------------------------------- */

typedef void (*cl_signal_cb)(cl_signal_t watch, int signo, void *argument);

/* Calls callback on this thread's loop after the process, or any thread of it, has caught the signal; once
 * for several deliveries between two turns. Signals are process-wide: all watches for a signal, of all loops,
 * are called, within one loop in the order of their start. While there are watches, the library's handler
 * (with SA_RESTART) is in the place of the program's; stopping the last one restores what was there before,
 * unless the program has set another handler since. The signal must not be blocked in all threads. The watch
 * keeps cl_event_loop_run running. A forked child has the dispositions from before the watches. Returns the
 * watch, or 0 with errno set (EINVAL: callback is null, or the signal cannot be caught or is SIGSEGV, SIGBUS,
 * SIGFPE or SIGILL; ENOMEM). */
CL_EV_API cl_signal_t cl_signal_start(int signo, cl_signal_cb callback, void *argument) CL_EV_NOEXCEPT;

/* Stops a watch. Its callback does not run after this call, even if the signal has been caught. */
CL_EV_API void cl_signal_stop(cl_signal_t watch) CL_EV_NOEXCEPT;

#ifdef __cplusplus
}
#endif
#endif /* TAVIPC_TAVCL_LOOP_H */
