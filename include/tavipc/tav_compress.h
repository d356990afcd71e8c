/* tav_compress.h - the compressed envelope and its application-message form.
 *
 * An envelope is the uncompressed length (32 bits, big-endian) and a zlib stream. An application message
 * has a 20-byte header (tav_ipc.h) with the method at byte 6 (0 = plain body, 4 = the body is an
 * envelope) and the body length at byte 16.
 *
 * The functions keep no state, and any thread may call them. The caller releases output buffers with free().
 * Their first reserve bytes (none in functions without this argument) are left for the caller to write;
 * reported lengths include them. On failure *out is null, *out_len is 0, and nothing stays allocated. The
 * argument unused is ignored.
 */
#ifndef TAVIPC_TAV_COMPRESS_H
#define TAVIPC_TAV_COMPRESS_H

#include <stdint.h>

#include "tav_api.h"

enum tav_compress_result {
    TAV_COMPRESS_OK = 0,
    TAV_COMPRESS_NO_GAIN = 9000,   /* empty input, or the envelope would not be shorter, and not forced */
    TAV_COMPRESS_TOO_SHORT = 9001, /* an envelope has at least 4 bytes */
    TAV_COMPRESS_BAD_ARG = 9002,   /* null argument, or a message of the wrong method */
    TAV_COMPRESS_NO_MEMORY = 9003  /* memory is short, or the length of the result exceeds 32 bits */
};
/* Other (negative) results are codes of zlib. */

#define TAV_COMPRESS_FORCE 1 /* keep an envelope that is not shorter, accept an empty input */

TAVIPC_BEGIN_DECLS

/* Compresses src_len bytes into a new buffer. flags: TAV_COMPRESS_FORCE or 0. Returns 0, 9000, 9002, 9003 or
 * zlib's code. out and out_len must not be null. */
TAVIPC_API int32_t tav_compress(const void *src, uint32_t src_len, void **out, uint32_t *out_len,
                                int flags) TAVIPC_NOEXCEPT;
TAVIPC_API int32_t tav_compress2(const void *src, uint32_t src_len, void **out, uint32_t *out_len,
                                 uint32_t reserve, int flags) TAVIPC_NOEXCEPT;

/* Uncompresses an envelope of src_len bytes into a new buffer, which is not null even if the data is empty.
 * The length that the envelope claims is allocated before it is verified, so callers must check it first if
 * the input is not trusted. Returns 0, 9001, 9002, 9003 (also if reserve + claimed length exceeds 2^32 - 1)
 * or zlib's code. */
TAVIPC_API int32_t tav_uncompress(const void *src, uint32_t src_len, void **out, uint32_t *out_len,
                                  int unused) TAVIPC_NOEXCEPT;
TAVIPC_API int32_t tav_uncompress2(const void *src, uint32_t src_len, void **out, uint32_t *out_len,
                                   uint32_t reserve) TAVIPC_NOEXCEPT;

/* The same for the body of an application message. msg must have 20 + body length bytes. The result has 20 +
 * its own body length bytes behind the reserve. Returns 9002 if msg or out is null or the method is not 0
 * (compress) or 4 (uncompress). */
TAVIPC_API int32_t tav_msg_compress(const void *msg, void **out, int flags) TAVIPC_NOEXCEPT;
TAVIPC_API int32_t tav_msg_compress2(const void *msg, void **out, uint32_t reserve,
                                     int flags) TAVIPC_NOEXCEPT;
TAVIPC_API int32_t tav_msg_uncompress(const void *msg, void **out, int unused) TAVIPC_NOEXCEPT;
TAVIPC_API int32_t tav_msg_uncompress2(const void *msg, void **out, uint32_t reserve,
                                       int unused) TAVIPC_NOEXCEPT;

/* zlib's compress, uncompress and compressBound with 32-bit lengths. *dest_len is the size of dest before the
 * call and the written length after it. Return zlib's code. A bound that exceeds 32 bits is reported as 2^32
 * - 1. */
TAVIPC_API int _zlib_compress(void *dest, uint32_t *dest_len, const void *src,
                              uint32_t src_len) TAVIPC_NOEXCEPT;
TAVIPC_API int _zlib_uncompress(void *dest, uint32_t *dest_len, const void *src,
                                uint32_t src_len) TAVIPC_NOEXCEPT;
TAVIPC_API uint32_t _zlib_compressBound(uint32_t src_len) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_COMPRESS_H */
