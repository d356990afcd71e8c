#include <gtest/gtest.h>
#include <zlib.h>

#include "common/big_endian.h"
#include "common/owned.h"
#include "tavipc/tav_compress.h"

using namespace std::string_literals;

const std::string kZeros(1000, '\0');

std::string noise(size_t size) {
    std::string bytes;
    for (uint32_t x = 12345; bytes.size() < size; x = x * 1664525 + 1013904223)
        bytes += static_cast<char>(x >> 24);
    return bytes;
}
std::string be32(size_t value) {
    std::string bytes(4, '\0');
    return tavipc::store_be32(bytes.data(), static_cast<uint32_t>(value)), bytes;
}
std::string message(const std::string &method, const std::string &body) {
    return "3200ab" + method + "cdefghi\x07" + be32(body.size()) + body;
}

// The result of a function behind the reserve, or its code. A failure must clear the buffer and the length.
template <auto function> std::string run(const std::string &in, uint32_t reserve, auto... flags) {
    void *out = &reserve;
    uint32_t length = 0, size = static_cast<uint32_t>(in.size());
    int32_t code;
    if constexpr (requires { function(&size, size, &out, &size, size, flags...); }) {
        code = function(in.data(), size, &out, &(length = 77), reserve, flags...);
    } else {
        code = function(in.data(), &out, reserve, flags...);
        if (code == 0) length = reserve + 20 + tavipc::load_be32(static_cast<char *>(out) + reserve + 16);
    }
    const tavipc::MallocPtr<char> owner(static_cast<char *>(out));
    EXPECT_EQ(out == nullptr, code != 0);
    if (code == 0) return {owner.get() + reserve, owner.get() + length};
    EXPECT_EQ(length, 0u);
    return std::to_string(code);
}
std::string compress(const std::string &data, int flags = 0) { return run<tav_compress2>(data, 60, flags); }
std::string uncompress(const std::string &data) { return run<tav_uncompress2>(data, 60); }

TEST(Envelope, RoundTripsAndIsKeptOnlyWhenShorterUnlessForced) {
    std::string edge = "a"; // grows to an input whose envelope has the same length
    while (compress(edge, TAV_COMPRESS_FORCE).size() > edge.size()) edge += 'a';
    for (const std::string &data : {""s, noise(100), edge}) {
        EXPECT_EQ(compress(data, ~TAV_COMPRESS_FORCE), "9000");
        EXPECT_EQ(uncompress(compress(data, TAV_COMPRESS_FORCE)), data);
    }
    for (const std::string &data : {edge + 'a', kZeros}) EXPECT_EQ(uncompress(compress(data)), data);
    EXPECT_EQ(compress(kZeros).substr(0, 4), "\0\0\3\xE8"s);
    EXPECT_EQ(run<tav_uncompress>(run<tav_compress>(kZeros, 0), 0), kZeros);
}

TEST(Envelope, ThatIsDamagedOrClaimsAWrongLengthIsRefused) {
    const std::string stream = compress(kZeros).substr(4);
    EXPECT_EQ(uncompress("\0\0\0"s), "9001");
    EXPECT_EQ(uncompress(be32(999) + stream), std::to_string(Z_BUF_ERROR));
    EXPECT_EQ(uncompress(be32(1001) + stream), kZeros);
    EXPECT_EQ(uncompress(be32(1000) + "x" + stream), std::to_string(Z_DATA_ERROR));
    EXPECT_EQ(uncompress(be32(0) + stream), "");
    EXPECT_EQ(uncompress(be32(UINT32_MAX) + stream), "9003");
}

TEST(AppMessage, RoundTripsAndPassesFailuresOn) {
    const std::string plain = message("\0\0"s, kZeros), packed = message("\0\4"s, compress(kZeros));
    EXPECT_EQ(run<tav_msg_compress2>(plain, 5, 0), packed);
    EXPECT_EQ(run<tav_msg_uncompress2>(packed, 60, 0), plain);
    EXPECT_EQ(run<tav_msg_uncompress>(run<tav_msg_compress>(plain, 0), 0), plain);
    EXPECT_EQ(run<tav_msg_compress2>(packed, 0, 0), "9002");
    EXPECT_EQ(run<tav_msg_uncompress2>(message("\1\4"s, compress(kZeros)), 0, 0), "9002");
    EXPECT_EQ(run<tav_msg_compress2>(message("\0\0"s, noise(100)), 0, 0), "9000");
    EXPECT_EQ(run<tav_msg_compress2>(plain, UINT32_MAX - 19, 0), "9003") << "no space for the header";
    EXPECT_EQ(tav_msg_compress(plain.data(), nullptr, 1), 9002);
}

TEST(Zlib, WrappersCarry32BitLengths) {
    EXPECT_EQ(_zlib_compressBound(UINT32_MAX), UINT32_MAX);
    uint32_t lengths[] = {_zlib_compressBound(1000), 0xA5A5A5A5}; // the second shows a 64-bit write
    std::string stream(lengths[0], '\0'), data(1000, 'x');
    ASSERT_EQ(_zlib_compress(stream.data(), lengths, kZeros.data(), 1000), Z_OK);
    const uint32_t packed = std::exchange(lengths[0], 1000);
    ASSERT_EQ(_zlib_uncompress(data.data(), lengths, stream.data(), packed), Z_OK);
    EXPECT_EQ(data, kZeros);
    EXPECT_EQ(lengths[1], 0xA5A5A5A5);
}
