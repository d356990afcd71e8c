/* tav_ipc_stats.h - counters: where every datagram of an endpoint went, in the process and from outside.
 *
 * Each endpoint has a record of counters, and each of its destinations has one. The records of a process are
 * in a file that the process maps, "ipc<pid>.stats" in the socket directory of the process's first endpoint,
 * so any program that may read the file sees them, even when the process is stopped, hangs or has been
 * killed. The file goes when the process's last endpoint is destroyed, and at exit. Other processes remove
 * the file of a process that was killed, as they remove its sending sockets. A process that cannot make the
 * file keeps its counters in memory. While the process lives it holds a lock (flock) on the file, so a reader
 * takes none.
 *
 * File layout: a tav_ipc_stats_file_st, padded to header_size bytes; then record_count records of record_size
 * bytes each. A record is a tav_ipc_stats_record_st, whose value_count values may be more or fewer than this
 * header names. A reader uses the sizes and counts of the file. Integers are in host order. A value is one
 * aligned 64-bit word that a single thread writes; a reader may find values of different moments beside each
 * other. A record whose generation has changed while it was read belongs to another endpoint or destination.
 *
 * Counts are of datagrams unless the meaning says otherwise: a message of more than 64,000 bytes is several.
 * For each record, at any time when no function of the library runs:
 *   accepted = left + dropped_no_peer + dropped_would_block + dropped_budget + dropped_no_memory
 *            + dropped_closed + dropped_other + queued + in_flight
 * and the same for their bytes, in which the header of 60 bytes counts, with dropped_bytes for all reasons.
 * If an endpoint is destroyed in a log sink, or in the completion of a cl_dunix_sendto2, the library does not
 * determine what became of its datagrams in flight: dropped_closed then also counts those that have left.
 */
#ifndef TAVIPC_TAV_IPC_STATS_H
#define TAVIPC_TAV_IPC_STATS_H

#include <stdint.h>

#include "tav_api.h"
#include "tav_ipc.h"

/* X(NAME, text, kind, meaning). The kinds: C counts up; G is a gauge, which goes up and down. Their order is
 * the order of the values in a record. New ones come at the end. */
/* clang-format off */
#define TAV_IPC_STATS_VALUES(X)                                                                              \
    X(MESSAGES,            "messages",            C, "messages of which a datagram was accepted")            \
    X(ACCEPTED,            "accepted",            C, "datagrams accepted for sending")                       \
    X(ACCEPTED_BYTES,      "accepted_bytes",      C, "bytes of accepted datagrams")                          \
    X(FRAGMENTS,           "fragments",           C, "accepted datagrams that are fragments")                \
    X(LEFT,                "left",                C, "datagrams that the destination's socket took")         \
    X(LEFT_BYTES,          "left_bytes",          C, "bytes of datagrams that left")                         \
    X(RETRIED,             "retried",             C, "attempts that were repeated later")                    \
    X(DROPPED_NO_PEER,     "dropped_no_peer",     C, "drops: no listener at the destination")                \
    X(DROPPED_WOULD_BLOCK, "dropped_would_block", C, "drops: the destination did not read")                  \
    X(DROPPED_BUDGET,      "dropped_budget",      C, "drops: waited, then too much was in flight")           \
    X(DROPPED_NO_MEMORY,   "dropped_no_memory",   C, "drops: memory was short")                              \
    X(DROPPED_CLOSED,      "dropped_closed",      C, "drops: the endpoint was destroyed")                    \
    X(DROPPED_OTHER,       "dropped_other",       C, "drops: another error of the socket")                   \
    X(DROPPED_BYTES,       "dropped_bytes",       C, "bytes of all dropped datagrams")                       \
    X(REFUSED_BUDGET,      "refused_budget",      C, "messages refused: too much was in flight")             \
    X(REFUSED_SIZE,        "refused_size",        C, "messages refused: over the largest size")              \
    X(REFUSED_NO_MEMORY,   "refused_no_memory",   C, "messages refused: memory was short")                   \
    X(REFUSED_OTHER,       "refused_other",       C, "messages refused: no such name, or endpoint closed")   \
    X(QUEUED,              "queued",              G, "datagrams in the delivery queue")                      \
    X(QUEUED_BYTES,        "queued_bytes",        G, "their bytes")                                          \
    X(IN_FLIGHT,           "in_flight",           G, "datagrams handed to the event library, outcome unknown") \
    X(IN_FLIGHT_BYTES,     "in_flight_bytes",     G, "their bytes")                                          \
    X(WAITING_SINCE_MS,    "waiting_since_ms",    G, "since when without a break something has been queued or in flight, CLOCK_MONOTONIC; 0: nothing is") \
    X(RECEIVED,            "received",            C, "datagrams received")                                   \
    X(RECEIVED_BYTES,      "received_bytes",      C, "bytes of received datagrams")                          \
    X(DELIVERED,           "delivered",           C, "messages given to the application or the library")     \
    X(BAD_SHORT,           "bad_short",           C, "received: shorter than a header")                      \
    X(BAD_CHECK,           "bad_check",           C, "received: wrong check value")                          \
    X(BAD_SIZE,            "bad_size",            C, "received: the size does not fit the datagram")         \
    X(BAD_FRAGMENT,        "bad_fragment",        C, "received: a fragment that fits no message")            \
    X(BAD_COMPRESSED,      "bad_compressed",      C, "received: a payload that cannot be decompressed")      \
    X(BAD_OTHER,           "bad_other",           C, "received: not taken for another reason")               \
    X(SETS_EXPIRED,        "sets_expired",        C, "unfinished messages that were given up after a time-out") \
    X(SETS_EVICTED,        "sets_evicted",        C, "unfinished messages that were dropped for others")     \
    X(SETS_OPEN,           "sets_open",           G, "messages under reassembly")                            \
    X(EXCHANGES_OPEN,      "exchanges_open",      G, "requests, confirmed messages and probes that wait")    \
    X(EXCHANGES_COMPLETED, "exchanges_completed", C, "exchanges that got an answer")                         \
    X(EXCHANGES_TIMED_OUT, "exchanges_timed_out", C, "exchanges that got none in time")                      \
    X(EXCHANGES_ENDED,     "exchanges_ended",     C, "exchanges that ended otherwise")                       \
    X(HANDLER_CALLS,       "handler_calls",       C, "calls of the application's message and request callbacks") \
    X(HANDLER_LONGEST_MS,  "handler_longest_ms",  G, "longest of these calls; read from a clock of about 4 ms")
/* clang-format on */

#define TAV_IPC_STATS_NAME(name, text, kind, meaning) TAV_IPC_STATS_##name,
enum tav_ipc_stats_value { TAV_IPC_STATS_VALUES(TAV_IPC_STATS_NAME) TAV_IPC_STATS_COUNT };
#undef TAV_IPC_STATS_NAME

enum { TAV_IPC_STATS_MAX = 48 }; /* values for which a record of this version has space */

enum tav_ipc_stats_kind {
    TAV_IPC_STATS_FREE = 0,        /* the record is not in use */
    TAV_IPC_STATS_ENDPOINT = 1,    /* an endpoint's sums */
    TAV_IPC_STATS_DESTINATION = 2, /* what an endpoint sent to one destination */
};

typedef struct tav_ipc_stats_record_st {
    uint32_t kind; /* enum tav_ipc_stats_kind; written last when a record is taken, first when it is freed */
    uint32_t generation; /* changes whenever the record is taken or freed */
    uint32_t owner;      /* number of the endpoint's record, its own for an endpoint */
    int32_t location;    /* number in the name of the socket directory */
    char name[32];       /* of the endpoint or the destination, with NUL */
    uint64_t since_ms;   /* CLOCK_MONOTONIC: when it was made */
    uint64_t reserved;
    uint64_t values[TAV_IPC_STATS_MAX];
} tav_ipc_stats_record_st;

typedef struct tav_ipc_stats_file_st {
    char magic[8];         /* "TAVSTAT" and NUL; written last */
    uint16_t version;      /* 1 */
    uint16_t header_size;  /* bytes before the first record */
    uint32_t record_size;  /* bytes */
    uint32_t record_count; /* records in the file, used or not */
    uint32_t value_count;  /* values that this process keeps in a record */
    uint32_t pid;
    uint32_t hidden;  /* endpoints and destinations so far that found no free record */
    uint64_t started; /* the process's start time, field 22 of /proc/<pid>/stat */
} tav_ipc_stats_file_st;

/* A copy of one record's values. */
typedef struct tav_ipc_stats_st {
    uint64_t values[TAV_IPC_STATS_COUNT]; /* by enum tav_ipc_stats_value */
} tav_ipc_stats_st;

TAVIPC_BEGIN_DECLS

/* Copies to *stats the counters of the endpoint (destination is null), or those of its destination with that
 * name. size is sizeof(tav_ipc_stats_st) of the caller, at least 8: that many bytes are set; values that the
 * library does not know are 0. Returns 0; -1 with errno EINVAL (ipc or stats is null, size is 0 or not a
 * multiple of 8) or ENOENT (the endpoint has no such destination, or no longer has it, or is destroyed). */
TAVIPC_API int tav_ipc_get_stats(tav_ipc_st *ipc, const char *destination, tav_ipc_stats_st *stats,
                                 uint32_t size) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_IPC_STATS_H */
