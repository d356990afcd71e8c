/* tav_ipc.h - endpoints of an agent's modules: addresses, messages, traces, configuration.
 *
 * A module opens an endpoint under a short name, sets its callbacks and sends messages to other endpoints
 * by address. Everything runs on the thread of one event loop (tavcl_ev.h): the library owns no thread.
 *
 * Lifetime rules:
 *  1. An endpoint belongs to the loop of the thread that created it; use it on that thread only. Use from
 *     a second thread at the same time is reported in the log (level 1), not prevented.
 *  2. A callback may do anything its caller may: send, create endpoints, destroy the endpoint that calls
 *     it. After tav_ipc_destroy the handle must not be used, also not by the rest of that callback.
 *  3. Data and addresses passed to a callback are valid until it returns.
 *  4. Data passed to a sending function is copied before the function returns.
 *  5. If memory for an essential record cannot be allocated, the process exits with status 0, after "Out of
 *     memory" or "memory not enough" in the log (level 0). Essential are addresses, endpoint handles,
 *     outstanding exchanges, messages under reassembly and received files. All other functions fail as their
 *     comments say.
 *  6. A log sink is a callback, too: any function of an endpoint may write a log line from inside. A
 *     sink should not run the loop: if it does so while an exchange is being sent, the answer may arrive
 *     before the exchange is recorded. The answer is then ignored, and the exchange times out.
 *
 * Threads: each thread of a process may have endpoints of its own, on its own loop. Message ids are unique in
 * the process. Functions without an endpoint (addresses, texts, host ids, traces) may be called on any
 * thread, with two exceptions. All endpoints that accept files belong to one thread, which alone calls
 * tav_ipc_save_file and tav_ipc_get_file_path. load_ipc_proxy_conf is called before any thread opens an
 * endpoint.
 */
#ifndef TAVIPC_TAV_IPC_H
#define TAVIPC_TAV_IPC_H

#include <stdint.h>

#include "tav_api.h"
#include "tavcl_ev.h"

/* --- records ---------------------------------------------------------------------------------- */

#define TAV_IPC_NAME_MAX 9              /* characters of an endpoint name */
#define TAV_IPC_NAME_SIZE 10            /* bytes of the name field */
#define TAV_IPC_MESSAGE_MAX 65471999u   /* payload bytes of one message */
#define TAV_IPC_FRAGMENT_PAYLOAD 64000u /* payload bytes of one datagram */

/* Endpoint address, 16 bytes, the same in memory and on the wire. */
typedef struct tav_addr_st {
    uint32_t hostid;              /* host id of the endpoint's machine, 0 = not specified */
    char name[TAV_IPC_NAME_SIZE]; /* NUL-terminated, bytes after the terminator are zero */
    uint8_t loc;                  /* location number, 0 = not specified */
    uint8_t flags;                /* ADDR_FLAG_*; other bits are carried unchanged */
} tav_addr_st;

#define ADDR_FLAG_COMPRESS_OK 0x08 /* the destination accepts compressed payloads */
#define ADDR_FLAG_TEMP 0x80        /* the endpoint was made by a _temp function */

/* Message header, 60 bytes in front of every datagram's payload. docs/wire.md has worked examples. */
typedef struct tav_ipc_hdr_st {
    tav_addr_st dest;     /* final destination, also when a proxy endpoint gets the datagram */
    tav_addr_st src;      /* the sending endpoint */
    uint32_t reqid;       /* message or request id, never 0 from this library */
    uint16_t flags;       /* IPC_FLAG_*; other bits are carried unchanged */
    uint16_t rflags;      /* 0, carried unchanged */
    uint32_t cmd;         /* command code chosen by the sender */
    uint32_t size;        /* payload bytes behind this header */
    uint32_t frag_orig;   /* in a fragment: payload bytes of the whole message; else 0 */
    uint8_t frag_word[2]; /* bit 0: is a fragment; bits 1 to 10: sequence number, low bits first */
    uint16_t frag_id;     /* the same in all fragments of a message; else 0 */
    uint32_t magic;       /* check value, tav_ipc_hdr_magic */
} tav_ipc_hdr_st;

#define IPC_FLAG_ACK 0x0001        /* acknowledges reqid; payload is a signed 32-bit status */
#define IPC_FLAG_NEED_ACK 0x0002   /* the receiving library answers with IPC_FLAG_ACK */
#define IPC_FLAG_FILE 0x0004       /* file chunk, cmd is the file id */
#define IPC_FLAG_PROBE 0x0008      /* acknowledged only, reaches no callback */
#define IPC_FLAG_REQUEST 0x0010    /* goes to the on_request callback when one is set */
#define IPC_FLAG_RESPONSE 0x0020   /* completes the request with the same reqid */
#define IPC_FLAG_TRACE 0x0040      /* the message trace prints it */
#define IPC_FLAG_COMPRESSED 0x0100 /* application message with a compressed body */
#define IPC_FLAG_APP_MSG 0x0200    /* application message: payload byte 15 is its priority */
#define IPC_FLAGS_CONTROL 0x0033   /* ACK, NEED_ACK, REQUEST, RESPONSE: control traffic */

/* An application message is a payload of at least 20 bytes: "3200" at 0, its method at 6 (16 bits
 * big-endian, 0 = plain body), its priority at 15 (0 counts as 4, higher goes first) and the length of the
 * body behind these 20 bytes at 16 (32 bits big-endian). */
#define TAV_APP_HEADER_SIZE 20

/* Result codes: 0, or negative; the positive ones are for applications' own replies. */
enum tav_ipc_result {
    IPC_OK = 0,
    IPC_ERR_SENDTO = -101,        /* refused; tav_ipc_send lists the reasons */
    IPC_ERR_TIMEOUT = -102,       /* no answer in time */
    IPC_ERR_CLOSED = -103,        /* the endpoint was destroyed */
    IPC_ERR_OPEN_FILE = -104,     /* the file to send cannot be opened */
    IPC_ERR_NOMEM = -105,         /* memory is short */
    IPC_ERR_FILE_ID = -106,       /* the file id is in use */
    IPC_ERR_IO = -107,            /* the peer cannot write the file */
    IPC_ERR_FILE_CLOSED = -108,   /* the peer has completed or dropped the file */
    IPC_ERR_NOT_SUPPORTED = -109, /* the peer accepts no files */
    IPC_ERR_PROTO = -110,         /* this one and those below: the library never reports them */
    IPC_ERR_LOOP = -111,
    IPC_ERR_NOT_READY = -112,
    IPC_ERR_CMD_NOT_FOUND = 1002,
    IPC_ERR_CONFIG_NOT_FOUND = 1003,
    IPC_ERR_OBJECT_NOT_FOUND = 1004,
    IPC_ERR_INVALID_PARAM = 1005
};

/* Process-wide IPC configuration, 13 words. The library uses the two eagain_ values only. A load sets the
 * other words to the numbers beside them, or to 0. */
typedef struct ipc_proxy_conf_st {
    uint32_t options; /* bit 0: disable_offline_cache; bits 1 and 2: set by every load */
    uint32_t proxy1;  /* 1 */
    uint32_t proxy2;  /* 200000 */
    uint32_t reserved3[2];
    uint32_t eagain_retry_interval_ms; /* delay before a refused datagram is tried again */
    uint32_t eagain_max_retry_times;   /* further tries after the first */
    uint32_t proxy7;                   /* 10000 */
    uint32_t proxy8;                   /* 60 */
    uint32_t reserved9[4];
} ipc_proxy_conf_st;

/* Endpoint handle. A pointer to it is also a pointer to the endpoint's own tav_addr_st. */
typedef struct tav_ipc_st tav_ipc_st;

/* --- callbacks; their results are ignored ------------------------------------------------------ */

/* A message: its source, command code and payload (size bytes; not null, also when size is 0). */
typedef int (*tav_ipc_msg_cb)(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t cmd, const void *data,
                              uint32_t size, void *user);
/* A request: the same with the id that its response must carry. */
typedef int (*tav_ipc_request_cb)(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd,
                                  const void *data, uint32_t size, void *user);
/* A whole file arrived at path. The file belongs to the library, which removes it 5 to 6 minutes after its
 * last data came: rename or copy it to keep it. */
typedef int (*tav_ipc_file_cb)(tav_ipc_st *ipc, const char *path, void *user);

/* Completion of a request: code 0 with the response's command code and payload (len bytes); else a negative
 * code (or the peer's) with cmd 0, data null, len 0. Runs exactly once. */
typedef int (*tav_ipc_response_cb)(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user);
/* Completion of a confirmed message, a probe or a file: runs exactly once. */
typedef int (*tav_ipc_status_cb)(int32_t code, void *user);

/* --- addresses --------------------------------------------------------------------------------- */

/* The one function of this section that is exported under a type-encoded name.
 * Compares hostid, loc and name (as text of at most 10 bytes), not flags. Returns 0 when equal, else -1
 * (also when either is null). */
TAVIPC_API int tav_addr_cmp(const tav_addr_st *a, const tav_addr_st *b) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z12tav_addr_cmpPK11tav_addr_stS1_");

TAVIPC_BEGIN_DECLS

/* Return a new address record, which the caller releases with tav_addr_destroy. Null when name is null or
 * longer than 9 characters. Short memory ends the process (lifetime rule 5). name is copied. */
TAVIPC_API tav_addr_st *tav_addr_create(const char *name, uint8_t loc, uint8_t flags) TAVIPC_NOEXCEPT;
TAVIPC_API tav_addr_st *tav_addr_create2(const char *name, uint8_t loc, uint32_t hostid,
                                         uint8_t flags) TAVIPC_NOEXCEPT;
/* Returns a copy of all 16 bytes, which the caller releases with tav_addr_destroy; null for null. */
TAVIPC_API tav_addr_st *tav_addr_dup(const tav_addr_st *address) TAVIPC_NOEXCEPT;
/* Releases a record made by the three functions above; null is ignored. */
TAVIPC_API void tav_addr_destroy(tav_addr_st *address) TAVIPC_NOEXCEPT;

/* Return the name bytes inside the record (null for null), valid as long as it; the location number and the
 * host id (0 for null). The name in an address from a peer may fill all 10 bytes without a NUL. */
TAVIPC_API const char *tav_addr_get_name(const tav_addr_st *address) TAVIPC_NOEXCEPT;
TAVIPC_API unsigned int tav_addr_get_loc(const tav_addr_st *address) TAVIPC_NOEXCEPT;
TAVIPC_API uint32_t tav_addr_get_hostid(const tav_addr_st *address) TAVIPC_NOEXCEPT;

/* Returns the check value over the two names, reqid, cmd and size; 0 for null. The header has any alignment.
 */
TAVIPC_API uint32_t tav_ipc_hdr_magic(const tav_ipc_hdr_st *header) TAVIPC_NOEXCEPT;

/* --- endpoints --------------------------------------------------------------------------------- */

/* Opens the endpoint name on this thread's loop. The name has 1 to 9 characters and is a file name: no "/",
 * and not "." or "..".
 *   - tav_ipc_create: receives, accepts no files
 *   - tav_ipc_create_temp: receives, its address carries ADDR_FLAG_TEMP
 *   - tav_ipc_create_non_recv: does not receive until tav_ipc_recv_start
 *   - tav_ipc_create_non_recv_temp: does not receive either, and its address carries ADDR_FLAG_TEMP
 *
 * If accept_files is not 0 the endpoint saves incoming file chunks, else it answers them with
 * IPC_ERR_NOT_SUPPORTED. Returns the handle, which the caller releases with tav_ipc_destroy. On failure
 * returns null and sets errno:
 *   - EPERM: the process's executable is not in the signed allow-list, or the list is missing or not valid
 *   - EINVAL: the name is null, empty, too long, "." or "..", or has a "/"
 *   - EADDRINUSE: another endpoint has the name, or a file that is not a socket is at its path
 *   - EACCES: no right to make the socket directory, or the socket in it
 *   - ENODEV: the host id cannot be determined
 *   - ENAMETOOLONG: the socket's path is longer than 107 bytes, because the deployment type is too long
 *   - ENOMEM: short memory
 *   - others: as open(2), socket(2), bind(2) and mkdir(2) set them, for example EMFILE, ENOSPC, EROFS
 *
 * Determining the host id may end the process: see CreateAgentId in tav_agentid.h. Short memory for the
 * handle itself ends it with exit status 0. If the environment has IPC_TEST beginning with "1", the process
 * marks every message from then on with IPC_FLAG_TRACE. */
TAVIPC_API tav_ipc_st *tav_ipc_create(const char *name) TAVIPC_NOEXCEPT;
TAVIPC_API tav_ipc_st *tav_ipc_create_temp(const char *name, uint32_t accept_files) TAVIPC_NOEXCEPT;
TAVIPC_API tav_ipc_st *tav_ipc_create_non_recv(const char *name, uint32_t accept_files) TAVIPC_NOEXCEPT;
TAVIPC_API tav_ipc_st *tav_ipc_create_non_recv_temp(const char *name, uint32_t accept_files) TAVIPC_NOEXCEPT;

/* Starts reception on the endpoint's own socket with the caller's datagram handler, whose context is the
 * handle. If the endpoint receives already, the handler replaces the one before. Returns the handle. On
 * failure returns null, sets errno and has destroyed the endpoint: EINVAL when the handle or the handler is
 * null (or the endpoint was destroyed), else ENOMEM or what the event library set. */
TAVIPC_API tav_ipc_st *tav_ipc_recv_start(tav_ipc_st *ipc, cl_dunix_recv_cb handler) TAVIPC_NOEXCEPT;

/* Closes the endpoint and releases the handle; null is ignored. Every outstanding exchange completes with
 * IPC_ERR_CLOSED from inside this call. Messages that have not left are dropped. May be called from any
 * callback. */
TAVIPC_API void tav_ipc_destroy(tav_ipc_st *ipc) TAVIPC_NOEXCEPT;

/* Set a callback and the user pointer that it gets. Return 0, or -1 when the handle or the callback is null:
 * nothing changes then. The callback for files runs only at an endpoint that accepts files. */
TAVIPC_API int tav_ipc_msg_recv(tav_ipc_st *ipc, tav_ipc_msg_cb callback, void *user) TAVIPC_NOEXCEPT;
TAVIPC_API int tav_ipc_file_recv(tav_ipc_st *ipc, tav_ipc_file_cb callback, void *user) TAVIPC_NOEXCEPT;
TAVIPC_API int tav_ipc_on_request(tav_ipc_st *ipc, tav_ipc_request_cb callback, void *user) TAVIPC_NOEXCEPT;

/* Returns the endpoint's own address, valid as long as the handle; null for null. */
TAVIPC_API const tav_addr_st *tav_ipc_get_local_addr(const tav_ipc_st *ipc) TAVIPC_NOEXCEPT;

/* Returns 1 when the address is at this endpoint's location and machine, else 0; 0 for null. Location 0 is
 * always local. Host id 0 is local at this location. */
TAVIPC_API int tav_ipc_is_local(const tav_ipc_st *ipc, const tav_addr_st *address) TAVIPC_NOEXCEPT;

/* Return the host id in the addresses of this process's endpoints: the platform's on a CNAPP agent that has
 * one, else the agent id; 0 when none can be had. tav_get_hostid remembers it for the process,
 * tav_calculate_hostid determines it afresh. Both may take as long as CreateAgentId, and end the process as
 * it does. */
TAVIPC_API uint32_t tav_get_hostid(void) TAVIPC_NOEXCEPT;
TAVIPC_API uint32_t tav_calculate_hostid(void) TAVIPC_NOEXCEPT;

/* --- sending ----------------------------------------------------------------------------------- */

/* Sends a message with command code cmd and size bytes of payload from data to dest. If data is null the
 * payload is zeros. Both data and dest are copied. Messages above 64,000 bytes travel in fragments. An
 * application message of at least 148 bytes whose length field is right is compressed, if that makes it
 * shorter, on its way to an address with ADDR_FLAG_COMPRESS_OK. Returns 0 when the message was sent or
 * queued. Returns IPC_ERR_SENDTO
 * (-101) when it was refused:
 *   - the handle or the destination is null
 *   - tav_ipc_destroy has closed the endpoint's sockets (callbacks that it calls with IPC_ERR_CLOSED may
 *     still send; what cannot leave at once is dropped)
 *   - the endpoint belongs to the process that forked this one
 *   - the destination is at this location (or its location is 0) and its name is empty, "." or "..", or has a
 *     "/". Names at other locations are not checked: the message goes to a proxy endpoint
 *   - the path of the socket to send to has more than 107 bytes
 *   - the message has more than 65,471,999 bytes (after compression)
 *   - with this message, 32 MiB or more would be in flight to the destination (64 MiB for control traffic and
 *     for priorities of 7 and more, so larger messages must be one of these)
 *   - short memory
 * If the destination keeps refusing a queued message, the message is dropped later, with a log line (level
 * 2). */
TAVIPC_API int tav_ipc_send(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                            uint32_t size) TAVIPC_NOEXCEPT;

/* The same with flags (IPC_FLAG_* or the application's own bits) and a message id. If reqid is not null and
 * *reqid is not 0, the message has that id; a *reqid of 0 is replaced by the id that was drawn.
 *   From location 4 to a location outside 5 to 11 the library sends eight copies, to the endpoints _prx0 to
 * _prx7 (see tavipc(7)). tav_ipc_send and this function then return 0 when at least one copy was sent or
 * queued. All copies have the same id if reqid is not null, else each has its own. */
TAVIPC_API int tav_ipc_send_with_flags(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd,
                                       const void *data, uint32_t size, uint16_t flags,
                                       uint32_t *reqid) TAVIPC_NOEXCEPT;

/* Sends a ready datagram to the socket file dpipe in the directory of the handle's location. The datagram is
 * a 60-byte header, complete but for magic, and its size bytes of payload. It has any alignment, stays the
 * caller's and is not changed. Limits and results are those of tav_ipc_send; dpipe must be a file name, while
 * the names in the header are not checked. */
TAVIPC_API int tav_ipc_send_raw(tav_ipc_st *ipc, const char *dpipe, const void *datagram) TAVIPC_NOEXCEPT;

/* --- exchanges -----------------------------------------------------------------------------------
 * Each completes exactly once, through its callback (which may be null):
 *   - with the answer
 *   - with IPC_ERR_TIMEOUT when timeout_s seconds have passed. The library counts whole seconds of the wall
 *     clock and checks once a second, so the callback runs up to two seconds late. A time-out of 0 ends with
 *     the current second, a negative one at the next check.
 *   - with IPC_ERR_CLOSED when the endpoint is destroyed, from inside tav_ipc_destroy; or when a later
 *     exchange gets the same message id, after 4,294,967,295 messages of the process
 *   - with IPC_ERR_SENDTO, from the loop 1 ms later, when the message was refused for the reasons of
 *     tav_ipc_send. On an endpoint that is being destroyed nothing is sent; the code is then IPC_ERR_CLOSED.
 * The callback never runs from inside the starting call, and may do anything. Short memory ends the process
 * with exit status 0.
 * A timer of the thread's loop measures that 1 ms. If the loop is released or the thread ends before, the
 * callback never runs. Destructors of static and thread_local objects run later still and must not start an
 * exchange. */

/* Sends a request; the peer's application answers it with tav_ipc_response. */
TAVIPC_API void tav_ipc_make_request(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                                     uint32_t len, tav_ipc_response_cb callback, void *user,
                                     int32_t timeout_s) TAVIPC_NOEXCEPT;

/* Answers the request reqid (not 0) of dest, both as the on_request callback got them. A response that is
 * lost or refused shows as the requester's time-out. */
TAVIPC_API void tav_ipc_response(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t reqid, uint32_t cmd,
                                 const void *data, uint32_t len) TAVIPC_NOEXCEPT;

/* Sends a message whose arrival the peer's library confirms: code 0 means delivered. */
TAVIPC_API void tav_ipc_send2(tav_ipc_st *ipc, const tav_addr_st *dest, uint32_t cmd, const void *data,
                              uint32_t len, tav_ipc_status_cb callback, void *user,
                              int32_t timeout_s) TAVIPC_NOEXCEPT;

/* Asks whether the endpoint receives: code 0 if so, IPC_ERR_TIMEOUT after 5 seconds if not. The peer's
 * application does not see it. */
TAVIPC_API void tav_ipc_probe(tav_ipc_st *ipc, const tav_addr_st *dest, tav_ipc_status_cb callback,
                              void *user) TAVIPC_NOEXCEPT;

/* --- files ----------------------------------------------------------------------------------------
 * A file travels in chunks of 64,000 bytes, each confirmed before the next is sent, into a temporary file
 * under /tmp at the receiver, whose file callback then gets its path. Received files are kept per process:
 * one thread of a process drives all endpoints that receive files. */

/* Sends the file at path, up to its end or to where it cannot be read. Opening a FIFO waits for a writer, and
 * reading a FIFO or device waits for data: both block the thread's loop. callback (may be null) runs exactly
 * once, with the transfer's id (0 or positive) when the peer has it all, else with a negative code.
 * From inside this call:
 *   - IPC_ERR_SENDTO: ipc or dest is null
 *   - IPC_ERR_OPEN_FILE: path is null or cannot be opened
 *   - IPC_ERR_NOMEM: memory is short
 *   - IPC_ERR_FILE_ID: no unused file id was found
 * Later, from the loop (IPC_ERR_CLOSED also from inside tav_ipc_destroy):
 *   - IPC_ERR_TIMEOUT: the peer did not confirm a chunk within timeout_s seconds
 *   - IPC_ERR_CLOSED: the endpoint was destroyed
 *   - IPC_ERR_SENDTO: a chunk was refused, for the reasons of tav_ipc_send
 *   - from the peer: IPC_ERR_FILE_ID (another source uses the id), IPC_ERR_IO (it cannot write the file),
 *     IPC_ERR_FILE_CLOSED (it has completed or dropped the file), IPC_ERR_NOT_SUPPORTED (no files) */
TAVIPC_API void tav_ipc_send_file(tav_ipc_st *ipc, const tav_addr_st *dest, const char *path,
                                  tav_ipc_status_cb callback, void *user, int32_t timeout_s) TAVIPC_NOEXCEPT;

/* Returns a random transfer id, not negative, for a destination's host id. It draws from rand(), which the
 * first call of the process seeds. */
TAVIPC_API int32_t tav_ipc_get_random_file_id(uint32_t hostid) TAVIPC_NOEXCEPT;

/* Saves one chunk of the file file_id from src: len bytes of data. With len 0 the file is complete: the
 * endpoint's file callback runs (not if ipc is null), and may destroy the endpoint. Returns 0, or:
 *   - IPC_ERR_FILE_ID: another source uses the id
 *   - IPC_ERR_FILE_CLOSED: the file is complete already, or was dropped (perhaps by the progress callback)
 *   - IPC_ERR_IO: the file cannot be made or written; it would be larger than RLIMIT_FSIZE; the process has
 *     65,536 received files, or half of its descriptors (RLIMIT_NOFILE) are files that are not complete; src
 *     is null; or data is null and len is not 0 */
TAVIPC_API int32_t tav_ipc_save_file(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t file_id,
                                     const void *data, uint32_t len) TAVIPC_NOEXCEPT;

/* Returns the path of a complete received file, valid until the library removes the file; null when the id is
 * unknown, the file is not complete yet, or it was dropped. ipc is not used and may be null. */
TAVIPC_API const char *tav_ipc_get_file_path(tav_ipc_st *ipc, uint32_t file_id) TAVIPC_NOEXCEPT;

/* --- diagnosis and configuration ---------------------------------------------------------------- */

/* Writes one line "[MSG TRACE] ..." about header with the caller's text at log level 4, when the header has
 * IPC_FLAG_TRACE or the file /tmp/ipc_debug exists. It looks for the file at most once in 10 s. The text
 * behind "[MSG TRACE] " is cut to 1,023 bytes. The header has any alignment; null writes nothing. file and
 * line go to the log. The caller tests error_output_check(4) first. */
TAVIPC_API void tav_ipc_msg_trace_ex(const char *file, int line, const tav_ipc_hdr_st *header,
                                     const char *format, ...) TAVIPC_NOEXCEPT TAVIPC_PRINTF(4, 5);

/* Returns the constant text of a result code, never null; "Unkown error" for a code outside the table. */
TAVIPC_API const char *tav_ipc_strerror(int code) TAVIPC_NOEXCEPT;

/* Loads the IPC configuration from the INI file at path: in section [ipc_proxy] the key
 * disable_offline_cache, in section [transfer] the keys eagain_retry_interval_ms and eagain_max_retry_times.
 * Always returns 0. If the file cannot be read, or a key is absent or negative, the default holds (0, 1000
 * ms, 10 times). A text that does not begin with a number counts as 0. Call it once, before any thread opens
 * an endpoint. */
TAVIPC_API int load_ipc_proxy_conf(const char *path) TAVIPC_NOEXCEPT;
/* Returns the process-wide record: never null, always the same address, all zero before the first load. */
TAVIPC_API ipc_proxy_conf_st *get_ipc_proxy_conf(void) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

/* Calls the endpoint's file callback with path as it is, if the endpoint and the callback are not null. */
TAVIPC_API void tav_ipc_emit_file(tav_ipc_st *ipc, const char *path) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z17tav_ipc_emit_fileP10tav_ipc_stPKc");

/* Seeds rand() with the monotonic milliseconds and returns one draw. The library calls it for each message
 * that it sends in fragments, so a program's own use of rand() gets a new sequence then. */
TAVIPC_API int ipc_rand_by_time(void) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z16ipc_rand_by_timev");

#endif /* TAVIPC_TAV_IPC_H */
