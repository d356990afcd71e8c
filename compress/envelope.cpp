// The compressed envelope: a 32-bit big-endian uncompressed length and, unless that is 0, one zlib stream.
//
// Every result is one allocation: the caller's reserve, then the envelope or the data. The allocation is not
// cleared, because its size follows from a length that is not verified yet, and untouched pages cost nothing.
// Sums are computed in 64 bits. A sum that exceeds the 32-bit lengths of the interface is reported as lack of
// memory.
#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <memory>

#include <zlib.h>

#include "common/big_endian.h"
#include "common/owned.h"
#include "tavipc/tav_compress.h"

namespace {

constexpr uint32_t kLengthSize = 4; // bytes of the uncompressed length in front of the zlib stream
constexpr uint64_t kMaxLength =
    std::numeric_limits<uint32_t>::max(); // bytes; lengths of the interface have 32 bits

using Buffer = tavipc::MallocPtr<uint8_t>;

// Returns null only if the memory cannot be allocated: for size 0 it allocates one byte.
Buffer allocate(uint64_t size) {
    if (size > std::numeric_limits<ptrdiff_t>::max()) return nullptr;
    return Buffer(static_cast<uint8_t *>(std::malloc(size ? static_cast<size_t>(size) : 1)));
}

// Calls a zlib function with lengths of type uLong, which is wider than 32 bits on most machines.
template <class Operation>
int with_wide_length(Operation operation, void *dest, uint32_t *dest_len, const void *src, uint32_t src_len) {
    if (!dest_len) return Z_STREAM_ERROR;
    uLongf length = *dest_len;
    const int code = operation(static_cast<Bytef *>(dest), &length, static_cast<const Bytef *>(src), src_len);
    *dest_len = static_cast<uint32_t>(length);
    return code;
}

} // namespace

int32_t tav_compress2(const void *src, uint32_t src_len, void **out, uint32_t *out_len, uint32_t reserve,
                      int flags) noexcept {
    *out = nullptr;
    *out_len = 0;
    const bool force = flags & TAV_COMPRESS_FORCE;
    if (!src) return TAV_COMPRESS_BAD_ARG;
    if (src_len == 0 && !force) return TAV_COMPRESS_NO_GAIN;

    uLongf stream_len = src_len ? ::compressBound(src_len) : 0;
    if (stream_len < src_len) return TAV_COMPRESS_NO_MEMORY; // the bound wrapped around in a 32-bit uLong
    const uint64_t head = uint64_t{reserve} + kLengthSize;
    Buffer buffer = allocate(head + stream_len);
    if (!buffer) return TAV_COMPRESS_NO_MEMORY;

    tavipc::store_be32(buffer.get() + reserve, src_len);
    if (src_len) {
        const int code =
            ::compress(buffer.get() + head, &stream_len, static_cast<const Bytef *>(src), src_len);
        if (code != Z_OK) return code;
        assert(stream_len <= ::compressBound(src_len));
    }
    if (!force && src_len <= kLengthSize + uint64_t{stream_len}) return TAV_COMPRESS_NO_GAIN;
    if (head + stream_len > kMaxLength) return TAV_COMPRESS_NO_MEMORY;
    *out_len = static_cast<uint32_t>(head + stream_len);
    *out = buffer.release();
    return TAV_COMPRESS_OK;
}

int32_t tav_compress(const void *src, uint32_t src_len, void **out, uint32_t *out_len, int flags) noexcept {
    return tav_compress2(src, src_len, out, out_len, 0, flags);
}

int32_t tav_uncompress2(const void *src, uint32_t src_len, void **out, uint32_t *out_len,
                        uint32_t reserve) noexcept {
    *out = nullptr;
    *out_len = 0;
    if (!src) return TAV_COMPRESS_BAD_ARG;
    if (src_len < kLengthSize) return TAV_COMPRESS_TOO_SHORT;

    const auto *envelope = static_cast<const uint8_t *>(src);
    uLongf data_len = tavipc::load_be32(envelope);
    if (uint64_t{reserve} + data_len > kMaxLength) return TAV_COMPRESS_NO_MEMORY;
    Buffer buffer = allocate(uint64_t{reserve} + data_len);
    if (!buffer) return TAV_COMPRESS_NO_MEMORY;

    if (data_len) {
        const int code =
            ::uncompress(buffer.get() + reserve, &data_len, envelope + kLengthSize, src_len - kLengthSize);
        if (code != Z_OK) return code;
        assert(data_len <= tavipc::load_be32(envelope));
    }
    *out_len = static_cast<uint32_t>(reserve + data_len);
    *out = buffer.release();
    return TAV_COMPRESS_OK;
}

int32_t tav_uncompress(const void *src, uint32_t src_len, void **out, uint32_t *out_len, int) noexcept {
    return tav_uncompress2(src, src_len, out, out_len, 0);
}

int _zlib_compress(void *dest, uint32_t *dest_len, const void *src, uint32_t src_len) noexcept {
    return with_wide_length(::compress, dest, dest_len, src, src_len);
}

int _zlib_uncompress(void *dest, uint32_t *dest_len, const void *src, uint32_t src_len) noexcept {
    return with_wide_length(::uncompress, dest, dest_len, src, src_len);
}

uint32_t _zlib_compressBound(uint32_t src_len) noexcept {
    const uLong bound = ::compressBound(src_len);
    return bound < src_len || bound > kMaxLength ? kMaxLength : static_cast<uint32_t>(bound);
}
