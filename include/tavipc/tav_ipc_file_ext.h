/* tav_ipc_file_ext.h - additions to the file transfer of tav_ipc.h: names, progress, cancellation.
 *
 * The functions carry the symbol version TAVIPC_1. The rules of tav_ipc.h for lifetimes and threads hold here
 * too: one thread of a process drives all endpoints that receive files. It alone calls tav_ipc_file_drop and
 * tav_ipc_file_drop_unfinished.
 *
 * The chunks of a file have no place for its name and size. A transfer with a name therefore begins with a
 * probe that announces both, before the first chunk (docs/wire.md describes it). A peer whose library does
 * not know announcements acknowledges the probe, ignores the rest, and gets the same chunks. A file
 * that was not announced has an empty name.
 */
#ifndef TAVIPC_TAV_IPC_FILE_EXT_H
#define TAVIPC_TAV_IPC_FILE_EXT_H

#include <stdint.h>

#include "tav_api.h"
#include "tav_ipc.h"

#define TAV_IPC_FILE_NAME_MAX 255            /* bytes of a file's name */
#define TAV_IPC_FILE_SIZE_UNKNOWN UINT64_MAX /* the size was not announced */

/* Flag of tav_ipc_file_start: as TAV_IPC_EXCHANGE_WAIT_FOR_PEER, for each message of the transfer. */
#define TAV_IPC_FILE_WAIT_FOR_PEER 1u

/* --- sending ----------------------------------------------------------------------------------- */

/* The peer has confirmed `confirmed` bytes of the transfer id. size is the size of the file when the transfer
 * began, and never less than confirmed; TAV_IPC_FILE_SIZE_UNKNOWN if it is not a regular file. Runs after
 * each confirmed chunk. It may do anything, also cancel the transfer and destroy the endpoint. */
typedef void (*tav_ipc_file_progress_cb)(uint64_t id, uint64_t confirmed, uint64_t size, void *user);

/* The transfer id has ended. code is 0 when the peer has the whole file, else negative (or the peer's). It
 * may do anything, also destroy the endpoint. */
typedef void (*tav_ipc_file_done_cb)(uint64_t id, int32_t code, void *user);

TAVIPC_BEGIN_DECLS

/* Sends the file at path to dest, up to its end or to where it cannot be read, and returns the id of the
 * transfer, which the process uses once. Its low 32 bits are the file id at the receiver.
 *   - name: the file's name for the receiver, 1 to TAV_IPC_FILE_NAME_MAX bytes without "/" and without
 *     control characters (0 to 31 and 127), not "." or "..". It is copied. Null: no announcement is sent,
 *     and the receiver sees neither name nor size.
 *   - timeout_ms: limits the wait for each confirmation, in milliseconds of the monotonic clock. A peer that
 *     does not confirm the announcement in this time gets the chunks without it.
 *   - flags: 0 or TAV_IPC_FILE_WAIT_FOR_PEER
 *   - progress, done: may be null. Neither runs inside this call, and progress does not run after done.
 * done runs exactly once, with 0; with IPC_ERR_NO_PEER as an exchange of tav_ipc_ext.h; with IPC_ERR_TIMEOUT;
 * with IPC_ERR_CANCELLED; with IPC_ERR_CLOSED from inside tav_ipc_destroy; with IPC_ERR_SENDTO (a message was
 * refused as for ENOBUFS below) or IPC_ERR_NOMEM; or with the peer's IPC_ERR_FILE_ID, IPC_ERR_IO,
 * IPC_ERR_FILE_CLOSED or IPC_ERR_NOT_SUPPORTED.
 * Opening a FIFO waits for a writer, and reading a FIFO or device waits for data: both block the loop.
 * On failure returns 0, and no callback runs. errno is then:
 *   - EINVAL: ipc, dest or path is null; dest's name is empty, "." or "..", or has a "/"; the file's name is
 *     not allowed; or flags has another bit
 *   - what fopen set
 *   - ESHUTDOWN: the endpoint is being destroyed
 *   - ENOBUFS: the first message was refused, because too much is in flight to dest, memory for the message
 *     is short, the path of the socket to send to has more than 107 bytes, or the endpoint belongs to the
 *     process that forked this one
 *   - EAGAIN: no unused file id was found
 *   - ENOMEM: memory for the transfer is short */
TAVIPC_API uint64_t tav_ipc_file_start(tav_ipc_st *ipc, const tav_addr_st *dest, const char *path,
                                       const char *name, uint32_t timeout_ms, uint32_t flags,
                                       tav_ipc_file_progress_cb progress, tav_ipc_file_done_cb done,
                                       void *user) TAVIPC_NOEXCEPT;

/* Ends the transfer id of the same endpoint: done runs inside this call with IPC_ERR_CANCELLED. If the
 * transfer has a name, the peer is notified, and drops what it has received. Returns 0; -1 with errno ENOENT
 * if ipc is null, or the transfer is unknown or has ended. */
TAVIPC_API int tav_ipc_file_cancel(tav_ipc_st *ipc, uint64_t id) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

/* --- receiving --------------------------------------------------------------------------------- */

/* A file that is being received, or is complete. Later versions may append members. */
typedef struct tav_ipc_file_st {
    tav_addr_st src;   /* the endpoint that sends it */
    uint32_t file_id;  /* for tav_ipc_file_drop and tav_ipc_get_file_path */
    const char *name;  /* announced by the sender, with the properties that tav_ipc_file_start asks for; else
                        * "". It is the peer's choice: bytes from 128 on are as they came, perhaps not UTF-8 */
    const char *path;  /* of the temporary file */
    uint64_t received; /* bytes so far */
    uint64_t size;     /* bytes that the sender announced, or TAV_IPC_FILE_SIZE_UNKNOWN. A complete file may
                        * have another size: it changed meanwhile */
} tav_ipc_file_st;

/* A file is complete, or has grown by a chunk. file and its texts are valid until the callback returns. It
 * may do anything, also drop the file and destroy the endpoint. A complete file at path belongs to the
 * library, as with tav_ipc_file_cb: rename or copy it to keep it. */
typedef void (*tav_ipc_file_event_cb)(tav_ipc_st *ipc, const tav_ipc_file_st *file, void *user);

TAVIPC_BEGIN_DECLS

/* Sets callbacks of an endpoint that accepts files. complete runs once for each whole file, in place of the
 * callback of tav_ipc_file_recv; progress (may be null) runs after each chunk with data. If complete is null,
 * both are unset, and the callback of tav_ipc_file_recv runs again. Returns 0; -1 with errno EINVAL when ipc
 * is null. */
TAVIPC_API int tav_ipc_on_file(tav_ipc_st *ipc, tav_ipc_file_event_cb complete,
                               tav_ipc_file_event_cb progress, void *user) TAVIPC_NOEXCEPT;

/* Drops a file of this process that is not complete: removes the temporary file, and answers further chunks
 * with IPC_ERR_FILE_CLOSED. Returns 0; -1 with errno ENOENT if there is no such file. */
TAVIPC_API int tav_ipc_file_drop(uint32_t file_id) TAVIPC_NOEXCEPT;

/* Drops all files of this process that are not complete, which otherwise remain in /tmp when the process
 * ends. Returns their number. */
TAVIPC_API uint32_t tav_ipc_file_drop_unfinished(void) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_IPC_FILE_EXT_H */
