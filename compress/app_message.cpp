// Application messages: a 20-byte header, whose method tells whether the body behind it is plain or an
// envelope, and the body. Compressing and opening replace the body, the method and the body length; every
// other byte of the header is copied.
#include <cstring>

#include "compress/big_endian.h"
#include "tavipc/tav_compress.h"

namespace {

using namespace tavipc::compress;

constexpr uint32_t kHeaderSize = 20;
constexpr size_t kMethodOffset = 6;
constexpr size_t kBodyLengthOffset = 16;
constexpr uint16_t kPlain = 0;
constexpr uint16_t kEnvelope = 4;

// Clears the result, and tells why the message cannot be taken (0 = it can).
int32_t check(const uint8_t *msg, void **out, uint32_t reserve, uint16_t method) {
    if (out) *out = nullptr;
    if (!msg || !out || load16(msg + kMethodOffset) != method) return TAV_COMPRESS_BAD_ARG;
    return reserve > UINT32_MAX - kHeaderSize ? TAV_COMPRESS_NO_MEMORY : TAV_COMPRESS_OK;
}

// Completes a result of out_len bytes whose body stands behind the reserve and the room for the header.
void write_header(void *out, uint32_t out_len, uint32_t reserve, const uint8_t *msg, uint16_t method) {
    uint8_t *header = static_cast<uint8_t *>(out) + reserve;
    std::memcpy(header, msg, kHeaderSize);
    store16(header + kMethodOffset, method);
    store32(header + kBodyLengthOffset, out_len - reserve - kHeaderSize);
}

} // namespace

int32_t tav_msg_compress2(const void *msg, void **out, uint32_t reserve, int flags) noexcept {
    const auto *message = static_cast<const uint8_t *>(msg);
    if (const int32_t code = check(message, out, reserve, kPlain)) return code;
    uint32_t out_len = 0;
    const int32_t code = tav_compress2(message + kHeaderSize, load32(message + kBodyLengthOffset), out,
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
    const int32_t code = tav_uncompress2(message + kHeaderSize, load32(message + kBodyLengthOffset), out,
                                         &out_len, reserve + kHeaderSize);
    if (code == TAV_COMPRESS_OK) write_header(*out, out_len, reserve, message, kPlain);
    return code;
}

int32_t tav_msg_uncompress(const void *msg, void **out, int unused) noexcept {
    return tav_msg_uncompress2(msg, out, 0, unused);
}
