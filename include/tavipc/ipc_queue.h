/* ipc_queue.h - the delivery queue of an endpoint: waiting datagrams, module infos, sending sockets.
 *
 * A queue holds the datagrams that could not be sent at once, first those of the earliest due second,
 * within one second those of the highest priority. Its timer hands each due record to the consume
 * callback. Per destination module it counts queued and in-flight datagrams in a module info, which names
 * the socket they leave through: one of a small pool that destinations share round-robin.
 * A queue belongs to one event-loop thread. Counts stop at 0, they never wrap.
 */
#ifndef TAVIPC_IPC_QUEUE_H
#define TAVIPC_IPC_QUEUE_H

#include <stdint.h>

#include "tav_api.h"
#include "tavbase.h"
#include "tavcl_ev.h"

struct tav_ipc_st;
struct ipc_queue_msg_st;

/* Per-destination counters and socket. Owned by the queue. */
typedef struct mod_info_st {
    uint32_t queued;        /* records in the queue */
    uint32_t queued_bytes;  /* sum of their sizes */
    uint32_t sending;       /* datagrams handed to the event library and not completed */
    uint32_t sending_bytes; /* sum of their sizes */
    uint64_t last_used;     /* loop clock, ms: creation or last lookup */
    uint32_t name_len;
    char name[12];   /* module name and NUL */
    cl_dunix_t sock; /* borrowed: a pool socket, or the endpoint's own for the default module */
} mod_info_st;

/* A waiting datagram: one allocation, released with free_ipc_queue_msg. */
typedef struct ipc_queue_msg_st {
    struct tav_ipc_st *ipc; /* endpoint that sends it, or null */
    mod_info_st *mod;       /* null: the queue's default module */
    cl_sockaddr_t dest;     /* socket address of the destination */
    uint64_t retry_later;   /* loop clock, ms: when it is due */
    uint32_t priority;      /* 0 counts as 4; higher goes first */
    uint32_t try_times;     /* attempts so far */
    uint32_t flags;         /* IPC_QUEUE_MSG_* */
    uint32_t size;          /* bytes of data */
    void *data;             /* the datagram: inline_data, or a buffer released by data_free */
    void (*data_free)(void *data, uint32_t size);
    __extension__ unsigned char inline_data[];
} ipc_queue_msg_st;

#define IPC_QUEUE_MSG_CONTROL 1u /* control traffic: large in-flight class */
#define IPC_QUEUE_MSG_RETRIED 2u /* was put back at least once */

/* Gets a due record, which is the callback's from then on. The result is ignored. */
typedef int (*ipc_queue_consume_cb)(uint64_t now, ipc_queue_msg_st *msg);

typedef struct ipc_queue_st {
    int32_t location; /* number in the socket directory's name */
    xhash_t *mods;    /* module name -> mod_info_st */
    heap_t *heap;     /* queued records */
    ipc_queue_consume_cb consume;
    cl_timer_t timer;         /* consume timer, 0 = not armed */
    int64_t mod_count;        /* entries of mods */
    mod_info_st *default_mod; /* sends through the endpoint's own socket; not in mods */
    cl_dunix_t *fd_pool;      /* fd_pool_count sockets, 0 = not made yet */
    uint32_t fd_pool_next;
    uint32_t fd_pool_count;
    int *destroyed;          /* private: tells a running consume pass that the queue is gone */
    mod_info_st *last_found; /* private: the module info that was asked for last, or null */
} ipc_queue_st;

TAVIPC_BEGIN_DECLS

/* A new record with room for extra bytes of inline_data; its fields are not set. Null when memory is short.
 */
TAVIPC_API ipc_queue_msg_st *create_ipc_queue_msg(uint32_t extra) TAVIPC_NOEXCEPT;
/* Calls data_free(data, size) when it is set, then releases the record; null is ignored. */
TAVIPC_API void free_ipc_queue_msg(ipc_queue_msg_st *msg) TAVIPC_NOEXCEPT;

/* The priority, or 4 when it is 0. */
TAVIPC_API int32_t get_real_priority(int32_t priority) TAVIPC_NOEXCEPT;
/* Order of the queue: negative when a goes before b, 0 when equal, positive when after. */
TAVIPC_API int32_t compare_ipc_queue_msg_priority(const ipc_queue_msg_st *a,
                                                  const ipc_queue_msg_st *b) TAVIPC_NOEXCEPT;
/* Makes the record due at now_ms + delay_ms, or at now_ms + a delay of 0 to 49 ms that grows with try_times.
 */
TAVIPC_API void ipc_queue_msg_set_retry_later(ipc_queue_msg_st *msg, uint64_t now_ms,
                                              uint64_t delay_ms) TAVIPC_NOEXCEPT;
TAVIPC_API void ipc_queue_msg_set_retry_later_random(ipc_queue_msg_st *msg, uint64_t now_ms) TAVIPC_NOEXCEPT;

/* Fills a zeroed queue. *socket is the endpoint's own socket; the queue owns it after success (0), it stays
 * the caller's after failure (-1: null argument, invalid socket, short memory). */
TAVIPC_API int init_ipc_queue(ipc_queue_st *queue, int32_t location, ipc_queue_consume_cb consume,
                              const cl_dunix_t *socket) TAVIPC_NOEXCEPT;
/* Releases everything that the queue holds, sockets included; the record itself stays the caller's. Null,
 * an all-zero queue and a second call are harmless. */
TAVIPC_API void destroy_ipc_queue(ipc_queue_st *queue) TAVIPC_NOEXCEPT;

/* Queues *msg at loop time now_ms and arms the timer. The queue owns the record when *msg has become null;
 * else it stays the caller's. 0; -1 when the record was refused or the timer could not be armed. */
TAVIPC_API int ipc_queue_push(ipc_queue_st *queue, ipc_queue_msg_st **msg, uint64_t now_ms) TAVIPC_NOEXCEPT;
/* The first record, or null; it stays queued. */
TAVIPC_API ipc_queue_msg_st *ipc_queue_top(const ipc_queue_st *queue) TAVIPC_NOEXCEPT;
/* The first record, now the caller's, or null. */
TAVIPC_API ipc_queue_msg_st *ipc_queue_pop(ipc_queue_st *queue) TAVIPC_NOEXCEPT;
TAVIPC_API uint32_t ipc_queue_len(const ipc_queue_st *queue) TAVIPC_NOEXCEPT;

/* The module info of a name (NUL-terminated, at most 11 characters), made on first use; owned by the queue.
 * Null when the name is null or too long, or no socket can be made. */
TAVIPC_API mod_info_st *ipc_queue_find_mod(ipc_queue_st *queue, const char *name) TAVIPC_NOEXCEPT;
/* Releases a module info with nothing queued or in flight; does nothing with another or the default one. */
TAVIPC_API void free_mod_info(mod_info_st *mod, ipc_queue_st *queue) TAVIPC_NOEXCEPT;
/* The same for every module info that was not used for more than an hour. */
TAVIPC_API void free_mod_info_hash(ipc_queue_st *queue) TAVIPC_NOEXCEPT;

/* A Unix datagram socket bound to /var/zon_ipc<location>/<name> (/var/<deployment type>/zon_ipc<location>/
 * <name> when there is one). 0 when name is null, empty or holds a "/", or the socket cannot be made.
 * Release it with destroy_unix_socket; 0 is ignored there. */
TAVIPC_API cl_dunix_t create_unix_socket(int32_t location, const char *name) TAVIPC_NOEXCEPT;
TAVIPC_API void destroy_unix_socket(cl_dunix_t socket) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_IPC_QUEUE_H */
