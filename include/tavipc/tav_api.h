/* tav_api.h - linkage, visibility and C/C++ glue shared by the public headers.
 *
 * Conventions of the whole interface:
 *  1. Everything is a plain C function over plain records and opaque handles; the headers compile as
 *     C11 and as C++20.
 *  2. Pointers passed in are borrowed until the call returns, unless a comment says otherwise.
 *  3. No function throws. A callback must not throw either: an exception that escapes from it ends the
 *     process. So do pthread_exit in a callback and the cancellation of a thread inside a function, for
 *     example one that runs the loop.
 *  4. A null pointer where the comment asks for an object gives the documented error, never a crash.
 *  5. Lengths are bytes, times carry their unit in the comment, multi-byte fields are in host order
 *     unless a comment says big-endian.
 */
#ifndef TAVIPC_TAV_API_H
#define TAVIPC_TAV_API_H

#define TAVIPC_API __attribute__((visibility("default")))
#define TAVIPC_PRINTF(format_index, first_argument)                                                          \
    __attribute__((format(printf, format_index, first_argument)))

#ifdef __cplusplus
#define TAVIPC_NOEXCEPT noexcept
#define TAVIPC_BEGIN_DECLS extern "C" {
#define TAVIPC_END_DECLS }
/* Twelve functions are exported under type-encoded names. C++ derives these names from the signatures. */
#define TAVIPC_ENCODED(symbol)
#else
#define TAVIPC_NOEXCEPT
#define TAVIPC_BEGIN_DECLS
#define TAVIPC_END_DECLS
/* C needs an assembler label. */
#define TAVIPC_ENCODED(symbol) __asm__(symbol)
#endif

#endif /* TAVIPC_TAV_API_H */
