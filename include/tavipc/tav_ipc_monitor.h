/* tav_ipc_monitor.h - what a running module sends to a monitor (copies of its messages), and the commands
 * that it takes from a monitor.
 *
 * A monitor binds a socket at "ipc.monitor0" in the socket directory of a location, or at the first free name
 * up to "ipc.monitor3": at most 4 are served. It is a SOCK_SEQPACKET socket, which then listens; a SOCK_DGRAM
 * socket is served, too, but holds net.unix.max_dgram_qlen copies only. When the socket takes connections,
 * the monitor sets the mode of its file, to 0600 for example; the mode that it has already is enough. Modules
 * watch for changed modes, so the many other files of the directory do not wake them.
 *
 * Each endpoint of the location connects a socket of its own: at once, or, if it is younger than a quarter of
 * a second, at that age. An endpoint that is made later connects while it is made. It sends one
 * TAV_IPC_MONITOR_HELLO, and from then on a copy of each datagram as a tav_ipc_monitor_record_st, without
 * waiting: what the monitor's socket does not take is counted in `missed` of the next copy. An endpoint that
 * the backlog of the monitor refuses is not connected until the mode is set again. A module accepts a monitor
 * only if the socket file belongs to root or to the module's own effective user, and takes commands only from
 * a process of such a user (SCM_CREDENTIALS). Modules leave a monitor whose socket is closed.
 *
 * A record with what follows it, and a command, are one packet each. Integers are in host order. A receiver
 * ignores packets with another magic. A later version may have a larger record: the datagram's header is at
 * record_size.
 */
#ifndef TAVIPC_TAV_IPC_MONITOR_H
#define TAVIPC_TAV_IPC_MONITOR_H

#include <stdint.h>

enum {
    TAV_IPC_MONITOR_MAGIC = 0x4e4f4d54, /* "TMON" in memory on a little-endian machine */
    TAV_IPC_MONITOR_VERSION = 1,
    TAV_IPC_MONITOR_MAX = 4 /* names, from 0 */
};

#define TAV_IPC_MONITOR_NAME "ipc.monitor" /* and a digit */

enum tav_ipc_monitor_event {
    TAV_IPC_MONITOR_HELLO = 0,    /* a module has connected; no datagram follows */
    TAV_IPC_MONITOR_SENT = 1,     /* the destination's socket took the datagram */
    TAV_IPC_MONITOR_WAITING = 2,  /* it joined the delivery queue, to be sent later */
    TAV_IPC_MONITOR_DROPPED = 3,  /* it was dropped; reason says why */
    TAV_IPC_MONITOR_RECEIVED = 4, /* a datagram was received and accepted */
    TAV_IPC_MONITOR_REFUSED = 5   /* a received datagram was not accepted; reason says why */
};

/* From the module to the monitor. The datagram's header follows (60 bytes, or fewer if the datagram is
 * shorter), then `captured` bytes of its payload. */
typedef struct tav_ipc_monitor_record_st {
    uint32_t magic;
    uint16_t version;
    uint16_t record_size; /* bytes of this record: where the datagram's header begins */
    uint64_t time_ns;     /* CLOCK_REALTIME */
    uint32_t pid;
    uint16_t event;    /* enum tav_ipc_monitor_event */
    uint16_t reason;   /* a value of enum tav_ipc_stats_value (DROPPED_..., BAD_...), else 0 */
    uint64_t missed;   /* copies so far that this monitor's socket did not take */
    uint32_t captured; /* bytes of payload that follow the header */
    uint32_t tries;    /* attempts to send so far */
    char endpoint[16]; /* name of the endpoint that sent or received it, with NUL */
    int32_t location;
    uint32_t reserved;
} tav_ipc_monitor_record_st;

enum tav_ipc_monitor_command {
    TAV_IPC_MONITOR_CAPTURE = 1,  /* value: bytes of payload to copy, at most; 0 at first */
    TAV_IPC_MONITOR_LOG_LEVEL = 2 /* value: the log level of the process, 0 to 4 */
};

/* From the monitor: to the connection, or for a SOCK_DGRAM socket to the address that a hello came from. */
typedef struct tav_ipc_monitor_command_st {
    uint32_t magic;
    uint16_t version;
    uint16_t command; /* enum tav_ipc_monitor_command */
    uint32_t value;
    uint32_t reserved;
} tav_ipc_monitor_command_st;

#endif /* TAVIPC_TAV_IPC_MONITOR_H */
