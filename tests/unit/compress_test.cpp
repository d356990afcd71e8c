#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <zlib.h>

#include "tavipc/tav_compress.h"

namespace {

using std::string_literals::operator""s;

const std::string kZeros(1000, '\0');

std::string noise(size_t size) {
    std::string bytes;
    for (uint32_t x = 12345; bytes.size() < size; x = x * 1664525 + 1013904223)
        bytes += static_cast<char>(x >> 24);
    return bytes;
}

std::string be32(size_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
            static_cast<char>(value)};
}

// What a call gave; a failure must leave neither a buffer nor a length.
struct Result {
    int32_t code;
    std::string bytes; // behind the reserve
};

template <class Call> Result run(uint32_t reserve, Call call) {
    void *out = &reserve; // garbage that every path must replace
    uint32_t length = 77;
    const int32_t code = call(&out, &length);
    const std::unique_ptr<char, decltype(&std::free)> owner(static_cast<char *>(out), std::free);
    EXPECT_EQ(out == nullptr, code != 0);
    if (code == 0) return {code, std::string(owner.get() + reserve, owner.get() + length)};
    EXPECT_EQ(length, 0u);
    return {code, ""};
}

Result compress(const std::string &data, int flags = 0, uint32_t reserve = 0) {
    return run(reserve, [&](void **out, uint32_t *length) {
        return tav_compress2(data.data(), static_cast<uint32_t>(data.size()), out, length, reserve, flags);
    });
}

Result uncompress(const std::string &data, uint32_t reserve = 0) {
    return run(reserve, [&](void **out, uint32_t *length) {
        return tav_uncompress2(data.data(), static_cast<uint32_t>(data.size()), out, length, reserve);
    });
}

// A message function; the header of its result must tell the length (expected behind the header).
template <class Call> Result run_message(uint32_t reserve, size_t expected, Call call) {
    return run(reserve, [&](void **out, uint32_t *length) {
        const int32_t code = call(out);
        *length = code == 0 ? static_cast<uint32_t>(reserve + 20 + expected) : 0;
        return code;
    });
}

std::string message(const std::string &method, const std::string &body) {
    return "3200ab" + method + "cdefghi\x07" + be32(body.size()) + body;
}

TEST(Envelope, RoundTripsBehindTheReserve) {
    for (const uint32_t reserve : {0u, 60u})
        for (const std::string &data : {""s, "x"s, kZeros, noise(100), noise(200'000)}) {
            const Result packed = compress(data, TAV_COMPRESS_FORCE, reserve);
            EXPECT_EQ(packed.bytes.substr(0, 4), be32(data.size()));
            EXPECT_EQ(packed.bytes.size() > 4, !data.empty());
            const Result opened = uncompress(packed.bytes, reserve);
            EXPECT_EQ(opened.code, 0);
            EXPECT_EQ(opened.bytes, data);
        }
}

TEST(Envelope, IsKeptOnlyWhenShorterUnlessForced) {
    std::string edge = "a"; // grows to an input whose envelope is just as long
    while (compress(edge, TAV_COMPRESS_FORCE).bytes.size() > edge.size()) edge += 'a';
    ASSERT_EQ(compress(edge, TAV_COMPRESS_FORCE).bytes.size(), edge.size());
    for (const std::string &data : {""s, noise(100), edge})
        EXPECT_EQ(compress(data, ~TAV_COMPRESS_FORCE).code, TAV_COMPRESS_NO_GAIN) << data.size();
    EXPECT_EQ(compress(edge + 'a').code, 0);
}

TEST(Envelope, OpensWhatItShould) {
    const std::string stream = compress(kZeros).bytes.substr(4);
    std::string damaged = stream;
    damaged.back() = static_cast<char>(damaged.back() ^ 1); // in the stream's check value
    const struct {
        const char *name;
        std::string envelope;
        int32_t code;
        std::string data;
    } cases[] = {
        {"three bytes", "\0\0\0"s, TAV_COMPRESS_TOO_SHORT, ""},
        {"claim too small", be32(999) + stream, Z_BUF_ERROR, ""},
        {"claim too large", be32(5000) + stream, 0, kZeros},
        {"damaged", be32(1000) + damaged, Z_DATA_ERROR, ""},
        {"stream missing", be32(1), Z_DATA_ERROR, ""},
        {"bytes behind an empty one", be32(0) + stream, 0, ""},
        {"length beyond 32 bits", be32(UINT32_MAX) + stream, TAV_COMPRESS_NO_MEMORY, ""},
    };
    for (const auto &c : cases) {
        const Result result = uncompress(c.envelope, 60);
        EXPECT_EQ(result.code, c.code) << c.name;
        EXPECT_EQ(result.bytes, c.data) << c.name;
    }
}

TEST(AppMessage, RoundTripsAndKeepsTheRestOfTheHeader) {
    const std::string plain = message("\0\0"s, kZeros);
    const std::string packed = message("\0\4"s, compress(kZeros).bytes);
    EXPECT_EQ(run_message(5, packed.size() - 20,
                          [&](void **out) { return tav_msg_compress2(plain.data(), out, 5, 0); })
                  .bytes,
              packed);
    EXPECT_EQ(run_message(60, kZeros.size(),
                          [&](void **out) { return tav_msg_uncompress2(packed.data(), out, 60, 0); })
                  .bytes,
              plain);
}

TEST(AppMessage, RefusesAndPassesFailuresOn) {
    const std::string plain = message("\0\0"s, noise(100)), packed = message("\0\4"s, "\0\0"s);
    const std::string swapped = message("\4\0"s, kZeros);
    const struct {
        int32_t (*call)(const void *, void **, int);
        const char *msg;
        int32_t code;
    } cases[] = {
        {tav_msg_compress, nullptr, TAV_COMPRESS_BAD_ARG},
        {tav_msg_uncompress, nullptr, TAV_COMPRESS_BAD_ARG},
        {tav_msg_compress, packed.data(), TAV_COMPRESS_BAD_ARG},
        {tav_msg_uncompress, plain.data(), TAV_COMPRESS_BAD_ARG},
        {tav_msg_uncompress, swapped.data(), TAV_COMPRESS_BAD_ARG},
        {tav_msg_compress, plain.data(), TAV_COMPRESS_NO_GAIN},
        {tav_msg_uncompress, packed.data(), TAV_COMPRESS_TOO_SHORT},
    };
    for (const auto &c : cases)
        EXPECT_EQ(run_message(0, 0, [&](void **out) { return c.call(c.msg, out, 0); }).code, c.code);
    EXPECT_EQ(tav_msg_compress2(plain.data(), nullptr, 0, 1), TAV_COMPRESS_BAD_ARG);
    void *out = nullptr; // the reserve and the header together do not fit 32 bits
    EXPECT_EQ(tav_msg_compress2(plain.data(), &out, UINT32_MAX - 19, 1), TAV_COMPRESS_NO_MEMORY);
}

TEST(Zlib, WrappersCarry32BitLengths) {
    uint32_t lengths[] = {_zlib_compressBound(1000), 0xA5A5A5A5}; // the second shows a 64-bit write
    EXPECT_EQ(_zlib_compressBound(UINT32_MAX), UINT32_MAX);
    std::string stream(lengths[0], '\0'), data(1000, 'x');
    ASSERT_EQ(_zlib_compress(stream.data(), lengths, kZeros.data(), 1000), Z_OK);
    const uint32_t packed = std::exchange(lengths[0], 1000);
    ASSERT_EQ(_zlib_uncompress(data.data(), lengths, stream.data(), packed), Z_OK);
    EXPECT_EQ(data, kZeros);
    EXPECT_EQ(lengths[1], 0xA5A5A5A5);
}

} // namespace
