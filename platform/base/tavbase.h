/* tavbase.h - the agent's base library: log, bounded strings, tables, heaps, INI files, clock, encodings,
 * paths, shell, resolver.
 *
 * This header is the contract that any replacement of libtavbase must meet.
 *
 *  1. No function throws. Unless its comment says otherwise, a function that is given a null pointer in
 *     place of an object returns its failure result. Destroy and free functions ignore null.
 *  2. The log, the clock and atomic_add_and_fetch may be used by several threads at the same time, also in
 *     a child that was forked meanwhile. Any other object (table, heap, INI file) belongs to one thread at
 *     a time.
 *  3. "Bounded" functions never write beyond the given size, and always end the text with a NUL when size
 *     is above 0.
 */
#ifndef TAVIPC_TAVBASE_H
#define TAVIPC_TAVBASE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TAVBASE_NOEXCEPT noexcept
extern "C" {
#else
#define TAVBASE_NOEXCEPT
#endif
#define TAVBASE_API __attribute__((visibility("default")))
#define TAVBASE_PRINTF(f, a) __attribute__((format(printf, f, a)))

/* --- log --------------------------------------------------------------------------------------
 * Levels: 0 fatal, 1 refusals and misuse, 2 failures and drops, 3 progress, 4 detail and traces. A level is
 * on when it is not above the threshold. The environment variable TAV_LOG_LEVEL (0 to 4, -1 = nothing) sets
 * the threshold and is read once; the default is 1. */

/* Returns non-zero when lines of this level are written. */
TAVBASE_API int error_output_check(int level) TAVBASE_NOEXCEPT;

/* Writes one line: level, source name, source line and the formatted text. A missing line end is added. Does
 * not test the level. Keeps errno. (This library replaces control characters other than tabs by "?", and cuts
 * a text of more than 3,967 bytes, which then ends in "...".) */
TAVBASE_API void error_output(int level, const char *source, int line, const char *format,
                              ...) TAVBASE_NOEXCEPT TAVBASE_PRINTF(4, 5);

/* Sets the threshold for the process, -1 to 4. Another number counts as the nearest of these. */
TAVBASE_API void error_output_set_level(int level) TAVBASE_NOEXCEPT;

/* Gives every line to sink instead of standard error; null restores standard error. text is the formatted
 * line without a line end, valid during the call. Calls come from any thread, one at a time. A sink may do
 * anything, also send messages and destroy endpoints. A line that the sink itself writes goes to standard
 * error. */
typedef void (*error_output_sink)(int level, const char *source, int line, const char *text, void *context);
TAVBASE_API void error_output_set_sink(error_output_sink sink, void *context) TAVBASE_NOEXCEPT;

/* Returns 1 while the calling thread is inside its call of the sink, else 0. Work whose lines belong to
 * others must wait until then. A library in place of this one may lack it. */
TAVBASE_API int error_output_in_sink(void) TAVBASE_NOEXCEPT;

/* --- bounded strings -------------------------------------------------------------------------- */

/* Like snprintf and vsnprintf, but the result is the number of characters stored, without the NUL: at most
 * size - 1, and 0 when size is 0 or formatting fails. */
TAVBASE_API int str_snprintf(char *buffer, size_t size, const char *format, ...) TAVBASE_NOEXCEPT
    TAVBASE_PRINTF(3, 4);
TAVBASE_API int str_magic_vsprintf(char *buffer, size_t size, const char *format,
                                   va_list arguments) TAVBASE_NOEXCEPT TAVBASE_PRINTF(3, 0);

/* Copies at most size - 1 characters and a NUL. Returns the length of source. */
TAVBASE_API size_t str_strlcpy(char *destination, const char *source, size_t size) TAVBASE_NOEXCEPT;

/* Returns the position, from 0, of the first occurrence of needle (needle_len bytes) in haystack
 * (haystack_len bytes) at or after start; -1 without one, or when an argument is invalid. An empty needle is
 * found at start. */
TAVBASE_API int str_find(const char *needle, int needle_len, const char *haystack, int haystack_len,
                         int start) TAVBASE_NOEXCEPT;

/* --- hash tables ------------------------------------------------------------------------------
 * Keys are byte strings, which may be empty; insertion copies them. Values are pointers, which the table owns
 * when it has a release function. Hashing is seeded per process, so peers cannot choose colliding keys. */
typedef struct xhash xhash_t;
typedef struct xhash_cookie xhash_cookie_t;

/* Called for each entry. The result 0 continues the walk; any other ends it and becomes its result. The
 * visitor may insert entries, and delete any entry, the visited one included. An entry that is inserted
 * meanwhile may or may not be visited. An entry that is deleted before its visit is not visited. */
typedef int (*xhash_visitor)(const void *key, uint32_t key_len, void *value, void *context);

/* release (may be null) releases a value. The second argument is reserved, pass 0. Returns null when memory
 * is short. */
TAVBASE_API xhash_t *xhash_create(void (*release)(void *value), uint32_t reserved) TAVBASE_NOEXCEPT;
/* Releases all values and the table. A release function may not touch the table. */
TAVBASE_API void xhash_destroy(xhash_t *table) TAVBASE_NOEXCEPT;
/* Stores value under the key; an older value is released. Returns 0, or -1 when memory is short: the value
 * then stays the caller's. */
TAVBASE_API int xhash_insert(xhash_t *table, const void *key, uint32_t key_len, void *value) TAVBASE_NOEXCEPT;
/* Returns 0 and sets *value (if value is not null) when the key is found; else returns -1 and leaves *value
 * alone. */
TAVBASE_API int xhash_search(const xhash_t *table, const void *key, uint32_t key_len,
                             void **value) TAVBASE_NOEXCEPT;
/* Removes the entry, then releases its value, and returns 0; -1 without such an entry. key may point into the
 * value. */
TAVBASE_API int xhash_delete(xhash_t *table, const void *key, uint32_t key_len) TAVBASE_NOEXCEPT;
/* Returns the number of entries; 0 for null. */
TAVBASE_API uint32_t xhash_count(const xhash_t *table) TAVBASE_NOEXCEPT;
/* Visits every entry; allocates nothing. Returns 0, the visitor's non-zero result, or -1 for a null table or
 * visitor. */
TAVBASE_API int xhash_walk(xhash_t *table, void *context, xhash_visitor visit) TAVBASE_NOEXCEPT;

/* A position for partial walks. Each call of xhash_walk_partial visits at least the given fraction (above 0,
 * at most 1) of the table and then continues from there, around the end. ceil(1/fraction) calls visit every
 * entry of a table that does not grow. Deletions and growth between calls are allowed. Results and memory are
 * those of xhash_walk. xhash_cookie_create returns null when memory is short; xhash_cookie_destroy releases
 * the position. */
TAVBASE_API xhash_cookie_t *xhash_cookie_create(float fraction) TAVBASE_NOEXCEPT;
TAVBASE_API void xhash_cookie_destroy(xhash_cookie_t *cookie) TAVBASE_NOEXCEPT;
TAVBASE_API int xhash_walk_partial(xhash_t *table, xhash_cookie_t *cookie, void *context,
                                   xhash_visitor visit) TAVBASE_NOEXCEPT;

/* --- binary heaps -----------------------------------------------------------------------------
 * compare returns a negative number when its first argument comes out first. */
typedef struct heap heap_t;
typedef int (*heap_compare)(const void *a, const void *b);

/* Return a new heap, which the caller releases with heap_destroy or heap_destroy2; null when compare is null
 * or memory is short. release (may be null) is used by heap_destroy2 only. The last argument is reserved,
 * pass 0. */
TAVBASE_API heap_t *heap_create(heap_compare compare) TAVBASE_NOEXCEPT;
TAVBASE_API heap_t *heap_create2(void (*release)(void *entry), heap_compare compare,
                                 uint32_t reserved) TAVBASE_NOEXCEPT;
/* Adds entry (not null). Returns 0, or -1 when memory is short: the heap is then unchanged. */
TAVBASE_API int heap_push(heap_t *heap, void *entry) TAVBASE_NOEXCEPT;
/* Takes out the entry that compares lowest and stores it in *entry (entry may be null). It is not released.
 * Returns 0, or -1 when the heap is empty. Allocates nothing. */
TAVBASE_API int heap_pop(heap_t *heap, void **entry) TAVBASE_NOEXCEPT;
/* Returns the entry that heap_pop would take, which stays in the heap; null when it is empty. */
TAVBASE_API void *heap_top(const heap_t *heap) TAVBASE_NOEXCEPT;
/* Returns the number of entries; 0 for null. */
TAVBASE_API uint32_t heap_count(const heap_t *heap) TAVBASE_NOEXCEPT;
TAVBASE_API void heap_destroy(heap_t *heap) TAVBASE_NOEXCEPT;  /* entries stay the caller's */
TAVBASE_API void heap_destroy2(heap_t *heap) TAVBASE_NOEXCEPT; /* entries are released */

/* --- INI files --------------------------------------------------------------------------------
 * Lines are "[section]", "key = value" or "key: value". A line is a comment if its first character other than
 * a blank is '#' or ';'. A ';' behind a blank begins a comment inside a line; a '#' there is part of the
 * value. Blanks around names and values are removed. Sections and keys are case-sensitive. The first of
 * several equal keys counts. */
typedef struct ini_file ini_file_t;

/* Returns null with errno set when the path is null (EINVAL), the file cannot be read, is not a regular file
 * (EINVAL, EISDIR) or is larger than 1 MiB (EFBIG), or memory is short (ENOMEM). Lines in another form are
 * skipped. */
TAVBASE_API ini_file_t *ini_file_load(const char *path) TAVBASE_NOEXCEPT;
/* Returns the value, which the file owns, or null. Leaves errno alone. */
TAVBASE_API const char *ini_file_get(const ini_file_t *file, const char *section,
                                     const char *key) TAVBASE_NOEXCEPT;
/* Returns what of the file has not been used, so that a program can report settings that have no effect:
 *   "[section] key"            ini_file_get has not returned its value
 *   "a second [section] key"   of several equal keys the first counts
 *   "line 7"                   the first line in another form
 * Each call returns another one; null when none is left, or with errno ENOMEM. The text is valid until the
 * next call. A replacement of this library may lack the function. */
TAVBASE_API const char *ini_file_next_unused(ini_file_t *file) TAVBASE_NOEXCEPT;
/* Releases the file and all values that came from it. */
TAVBASE_API void ini_file_free(ini_file_t *file) TAVBASE_NOEXCEPT;

/* --- clock and counters ----------------------------------------------------------------------- */

/* Ticks of the monotonic clock since boot, and their conversion to milliseconds. */
TAVBASE_API uint64_t timer_get_ticks(void) TAVBASE_NOEXCEPT;
TAVBASE_API uint64_t timer_ticks2ms(uint64_t ticks) TAVBASE_NOEXCEPT;

/* Adds atomically and returns the new value. */
TAVBASE_API int atomic_add_and_fetch(volatile int *counter, int value) TAVBASE_NOEXCEPT;

/* --- encodings -------------------------------------------------------------------------------- */

/* CRC-32 (reflected 0xEDB88320, initial value and final complement 0xFFFFFFFF; "123456789" gives
 * 0xCBF43926). */
TAVBASE_API uint32_t orlask_crc32(const void *data, uint32_t len) TAVBASE_NOEXCEPT;

/* Decodes base64 text into out, at most out_max bytes. CR and LF may follow the text. Returns the number of
 * bytes, or -1 when the text is not base64 or does not fit. */
TAVBASE_API int Base64_Decode(const char *in, int in_len, unsigned char *out, int out_max) TAVBASE_NOEXCEPT;

/* Writes 2 * in_len lower-case hexadecimal characters without a NUL. Returns their number, or -1 when they do
 * not fit into out_max bytes. */
TAVBASE_API int Hex_Encode_Lower(const unsigned char *in, int in_len, char *out,
                                 int out_max) TAVBASE_NOEXCEPT;

/* --- paths, shell, resolver ------------------------------------------------------------------- */

/* Copies path_template into out, at most size bytes with the NUL. The directory of the running executable
 * replaces a leading "@". Returns 0; -1 when the path was cut, or the executable is unknown ("@" then stands
 * for "/"). */
TAVBASE_API int dirutils_path_transform(const char *path_template, char *out, int size) TAVBASE_NOEXCEPT;

/* Runs command by /bin/sh and captures up to size - 1 bytes of its standard output. Returns 0 when the
 * command ended with status 0 and wrote something; else -1, and out holds what it wrote. The status counts as
 * 0 if it is lost because the process ignores SIGCHLD or collects its children itself. A command that runs
 * longer than 10 seconds is ended. */
TAVBASE_API int shell_execute(const char *command, char *out, int size) TAVBASE_NOEXCEPT;

/* Resolves a host name, or the text of an IPv4 address, to dotted IPv4 text in ip, a buffer of at least 16
 * bytes. Blocks as long as the system's resolver does. Returns 1 on success, 0 on failure: ip is then
 * unchanged. */
TAVBASE_API int get_ipaddr_by_host(const char *host, char *ip) TAVBASE_NOEXCEPT;

#ifdef __cplusplus
}
#endif
#endif /* TAVIPC_TAVBASE_H */
