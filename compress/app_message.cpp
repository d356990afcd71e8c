// Application messages: a 20-byte header and a body. The method field of the header says whether the body is
// plain or a compressed envelope. Compressing and uncompressing replace the body, the method and the body
// length, and copy all other bytes of the header.
#include <cassert>
#include <cstring>

#include "common/big_endian.h"
#include "tavipc/tav_compress.h"

namespace {

using namespace tavipc;

// The header of an application message, in bytes.
constexpr uint32_t kHeaderSize = 20;
constexpr size_t kMethodOffset = 6;
constexpr size_t kBodyLengthOffset = 16;
// Values of its method field.
constexpr uint16_t kPlain = 0;
constexpr uint16_t kEnvelope = 4;

// Clears *out. Returns TAV_COMPRESS_OK if the message can be processed.
int32_t check(const uint8_t *msg, void **out, uint32_t reserve, uint16_t method) {
    if (out) *out = nullptr;
    if (!msg || !out || load_be16(msg + kMethodOffset) != method) return TAV_COMPRESS_BAD_ARG;
    return reserve > UINT32_MAX - kHeaderSize ? TAV_COMPRESS_NO_MEMORY : TAV_COMPRESS_OK;
}

// Writes the header of a result of out_len bytes: the reserve, space for the header, and the finished body.
void write_header(void *out, uint32_t out_len, uint32_t reserve, const uint8_t *msg, uint16_t method) {
    assert(out_len >= uint64_t{reserve} + kHeaderSize);
    uint8_t *header = static_cast<uint8_t *>(out) + reserve;
    std::memcpy(header, msg, kHeaderSize);
    store_be16(header + kMethodOffset, method);
    store_be32(header + kBodyLengthOffset, out_len - reserve - kHeaderSize);
}

} // namespace

int32_t tav_msg_compress2(const void *msg, void **out, uint32_t reserve, int flags) noexcept {
    const auto *message = static_cast<const uint8_t *>(msg);
    if (const int32_t code = check(message, out, reserve, kPlain)) return code;
    uint32_t out_len = 0;
    const int32_t code = tav_compress2(message + kHeaderSize, load_be32(message + kBodyLengthOffset), out,
                                       &out_len, reserve + kHeaderSize, flags);
    if (code == TAV_COMPRESS_OK) write_header(*out, out_len, reserve, message, kEnvelope);
    return code;
}

int32_t tav_msg_compress(const void *msg, void **out, int flags) noexcept {
    return tav_msg_compress2(msg, out, 0, flags);
}

int32_t tav_msg_uncompress2(const void *msg, void **out, uint32_t reserve, int) noexcept {
    const auto *message = static_cast<const uint8_t *>(msg);
    if (const int32_t code = check(message, out, reserve, kEnvelope)) return code;
    uint32_t out_len = 0;
    const int32_t code = tav_uncompress2(message + kHeaderSize, load_be32(message + kBodyLengthOffset), out,
                                         &out_len, reserve + kHeaderSize);
    if (code == TAV_COMPRESS_OK) write_header(*out, out_len, reserve, message, kPlain);
    return code;
}

int32_t tav_msg_uncompress(const void *msg, void **out, int unused) noexcept {
    return tav_msg_uncompress2(msg, out, 0, unused);
}
