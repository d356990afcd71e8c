/* ipc_queue.h - the delivery queue of an endpoint: waiting datagrams, destinations, sending sockets.
 *
 * A queue holds the datagrams that could not be sent at once. Those of the earliest due second come first,
 * and within one second those of the highest priority. The queue's timer hands each due record to the consume
 * callback. For each destination the queue keeps a module info: it counts the datagrams that are queued and
 * in flight, and names the socket that they leave through, one of a small pool that destinations share
 * round-robin. A queue belongs to one event-loop thread. Counts stop at 0, they never wrap.
 */
#ifndef TAVIPC_IPC_QUEUE_H
#define TAVIPC_IPC_QUEUE_H

#include <stdint.h>

#include "tav_api.h"
#include "tavbase.h"
#include "tavcl_ev.h"

struct tav_ipc_st;
struct ipc_queue_msg_st;

/* A destination's counters and socket. The queue makes and owns it; other code must not make one. */
typedef struct mod_info_st {
    uint32_t queued;        /* records in the queue */
    uint32_t queued_bytes;  /* sum of their sizes */
    uint32_t sending;       /* datagrams handed to the event library and not completed */
    uint32_t sending_bytes; /* sum of their sizes */
    uint64_t last_used;     /* loop clock, ms: creation or last lookup */
    uint32_t name_len;
    char name[12];   /* the destination's name and NUL */
    cl_dunix_t sock; /* borrowed: a pool socket, or the endpoint's own */
} mod_info_st;

/* A waiting datagram: one allocation, released with free_ipc_queue_msg. */
typedef struct ipc_queue_msg_st {
    struct tav_ipc_st *ipc; /* endpoint that sends it, or null */
    mod_info_st *mod;       /* a module info of the queue; null: the default one */
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

/* Gets a due record, which is the callback's from then on; its try_times counts this attempt. now is the loop
 * clock, ms. The callback may push, pop and destroy the queue. The result is ignored. */
typedef int (*ipc_queue_consume_cb)(uint64_t now, ipc_queue_msg_st *msg);

typedef struct ipc_queue_st {
    int32_t location; /* number in the socket directory's name */
    xhash_t *mods;    /* destination's name -> mod_info_st */
    heap_t *heap;     /* queued records */
    ipc_queue_consume_cb consume;
    cl_timer_t timer;         /* consume timer, 0 = not armed */
    int64_t mod_count;        /* entries of mods */
    mod_info_st *default_mod; /* sends through the endpoint's own socket; not in mods */
    cl_dunix_t *fd_pool;      /* fd_pool_count sockets, 0 = not made yet */
    uint32_t fd_pool_next;
    uint32_t fd_pool_count;
    int *destroyed;          /* private: set by destroy_ipc_queue for the frames that run inside it */
    mod_info_st *last_found; /* private: the result of the last look-up, or null */
} ipc_queue_st;

TAVIPC_BEGIN_DECLS

/* Returns a new record with extra bytes of inline_data, which the caller releases with free_ipc_queue_msg or
 * gives to a queue. Its fields are not set. Null when memory is short. */
TAVIPC_API ipc_queue_msg_st *create_ipc_queue_msg(uint32_t extra) TAVIPC_NOEXCEPT;
/* Calls data_free(data, size) when it is set, then releases the record; null is ignored. */
TAVIPC_API void free_ipc_queue_msg(ipc_queue_msg_st *msg) TAVIPC_NOEXCEPT;

/* Returns the priority, or 4 when it is 0. */
TAVIPC_API int32_t get_real_priority(int32_t priority) TAVIPC_NOEXCEPT;
/* Compares two records in the order of the queue: negative when a goes before b, 0 when they are equal,
 * positive when a goes after b. Neither may be null. */
TAVIPC_API int32_t compare_ipc_queue_msg_priority(const ipc_queue_msg_st *a,
                                                  const ipc_queue_msg_st *b) TAVIPC_NOEXCEPT;
/* Make the record due at now_ms + delay_ms, or at now_ms + a delay of 0 to 49 ms: 10 ms times try_times
 * modulo 5, plus 0 to 9 ms at random. null is ignored. The record must not be queued. */
TAVIPC_API void ipc_queue_msg_set_retry_later(ipc_queue_msg_st *msg, uint64_t now_ms,
                                              uint64_t delay_ms) TAVIPC_NOEXCEPT;
TAVIPC_API void ipc_queue_msg_set_retry_later_random(ipc_queue_msg_st *msg, uint64_t now_ms) TAVIPC_NOEXCEPT;

/* Sets up the queue that the caller allocated, whatever it holds. location is the number in the socket
 * directory's name, *socket the endpoint's own socket. Returns 0; the queue owns the socket then. Returns -1
 * when an argument is null, *socket is 0 or memory is short; the socket stays the caller's then. */
TAVIPC_API int init_ipc_queue(ipc_queue_st *queue, int32_t location, ipc_queue_consume_cb consume,
                              const cl_dunix_t *socket) TAVIPC_NOEXCEPT;
/* Releases everything that the queue holds: records, module infos and sockets. The queue's own memory stays
 * the caller's. Null, an all-zero queue and a second call are harmless. */
TAVIPC_API void destroy_ipc_queue(ipc_queue_st *queue) TAVIPC_NOEXCEPT;

/* Queues *msg at loop time now_ms and arms the timer. The queue owns the record when *msg has become null,
 * else it stays the caller's. Returns 0; -1 when an argument is null, memory is short, or the timer could not
 * be armed (the record is queued then, and the next push arms the timer). */
TAVIPC_API int ipc_queue_push(ipc_queue_st *queue, ipc_queue_msg_st **msg, uint64_t now_ms) TAVIPC_NOEXCEPT;
/* Returns the first record, which stays queued, or null. */
TAVIPC_API ipc_queue_msg_st *ipc_queue_top(const ipc_queue_st *queue) TAVIPC_NOEXCEPT;
/* Takes the first record out and returns it, now the caller's, or null. */
TAVIPC_API ipc_queue_msg_st *ipc_queue_pop(ipc_queue_st *queue) TAVIPC_NOEXCEPT;
/* Returns the number of records. These three accept null and an all-zero queue: null, null and 0. */
TAVIPC_API uint32_t ipc_queue_len(const ipc_queue_st *queue) TAVIPC_NOEXCEPT;

/* Returns the module info of a name (NUL-terminated, at most 11 characters), made on first use. The queue
 * owns it, and may release it as soon as nothing is queued or in flight. Null when the name is null or too
 * long, memory is short, or no socket can be made. */
TAVIPC_API mod_info_st *ipc_queue_find_mod(ipc_queue_st *queue, const char *name) TAVIPC_NOEXCEPT;
/* Releases a module info of the queue that has nothing queued or in flight and is not in use. Does nothing
 * with any other, with the default one and for null. */
TAVIPC_API void free_mod_info(mod_info_st *mod, ipc_queue_st *queue) TAVIPC_NOEXCEPT;
/* Does the same with every module info that was not looked up for more than an hour; null is ignored. */
TAVIPC_API void free_mod_info_hash(ipc_queue_st *queue) TAVIPC_NOEXCEPT;

/* Returns a Unix datagram socket bound to /var/zon_ipc<location>/<name>, or with a deployment type to
 * /var/<type>/zon_ipc<location>/<name>. The caller releases it with destroy_unix_socket, which ignores 0.
 * Returns 0 with errno set on failure: EINVAL when name is null, empty, "." or "..", or has a "/"; else as
 * tav_ipc_create. */
TAVIPC_API cl_dunix_t create_unix_socket(int32_t location, const char *name) TAVIPC_NOEXCEPT;
TAVIPC_API void destroy_unix_socket(cl_dunix_t socket) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_IPC_QUEUE_H */
