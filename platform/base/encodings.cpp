// Checksums, and bytes as text.
#include "tavbase.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

#include <openssl/evp.h>
#include <zlib.h>

namespace {

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Decodes whole quartets of alphabet characters and padding. The decoder writes three bytes for every
// quartet, even a padded one, so it gets a buffer of its own, from which only the decoded bytes are copied.
bool decode_quartets(std::string_view text, size_t decoded_len, unsigned char *out) {
    constexpr size_t kQuartets = 256; // for one call of the decoder; 768 bytes on the stack
    unsigned char block[kQuartets * 3];
    while (!text.empty()) {
        const std::string_view part = text.substr(0, kQuartets * 4);
        const int got = EVP_DecodeBlock(block, reinterpret_cast<const unsigned char *>(part.data()),
                                        static_cast<int>(part.size()));
        if (got < 0) return false;
        const size_t copied = std::min(decoded_len, static_cast<size_t>(got));
        if (copied > 0) memcpy(out, block, copied);
        out += copied;
        decoded_len -= copied;
        text.remove_prefix(part.size());
    }
    return true;
}

} // namespace

uint32_t orlask_crc32(const void *data, uint32_t len) noexcept {
    if (!data) return 0;
    return static_cast<uint32_t>(crc32_z(0, static_cast<const Bytef *>(data), len));
}

int Base64_Decode(const char *in, int in_len, unsigned char *out, int out_max) noexcept {
    if (!in || in_len < 0 || !out || out_max < 0) return -1;
    std::string_view text(in, static_cast<size_t>(in_len));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    if (text.size() % 4 != 0) return -1;

    std::string_view digits = text;
    while (!digits.empty() && digits.back() == '=') digits.remove_suffix(1);
    const size_t padding = text.size() - digits.size();
    // The decoder itself would accept padding and line ends in the middle.
    if (padding > 2 || digits.find_first_not_of(kBase64Alphabet) != digits.npos) return -1;

    const size_t decoded_len = text.size() / 4 * 3 - padding;
    if (decoded_len > static_cast<size_t>(out_max) || !decode_quartets(text, decoded_len, out)) return -1;
    return static_cast<int>(decoded_len);
}

int Hex_Encode_Lower(const unsigned char *in, int in_len, char *out, int out_max) noexcept {
    if (!in || !out || in_len < 0 || in_len > INT_MAX / 2 || out_max < 2 * in_len) return -1;
    constexpr char kDigits[] = "0123456789abcdef";
    for (int i = 0; i < in_len; ++i) {
        *out++ = kDigits[in[i] >> 4];
        *out++ = kDigits[in[i] & 15];
    }
    return 2 * in_len;
}
