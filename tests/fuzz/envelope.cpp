// Envelopes and application messages: what can be opened can be closed and opened again with the same result,
// what is closed opens to what it was, whatever it claims, and never more than was reserved is written.
// The runner limits single allocations, so that a claim of gigabytes meets lack of memory.
#include <cstring>
#include <memory>

#include "checked_zlib.h"
#include "compress/big_endian.h"
#include "input.h"
#include "tavipc/tav_compress.h"

namespace {

using tavipc::compress::load32;
using tavipc::compress::store16;
using tavipc::compress::store32;

struct Result {
    int32_t code = 0;
    void *out = nullptr;
    uint32_t len = 77;

    Result() = default;
    Result(const Result &) = delete;
    Result &operator=(const Result &) = delete;
    ~Result() { std::free(out); }
    explicit operator bool() const { return code == TAV_COMPRESS_OK; }
    // Behind the reserve.
    std::string_view text(uint32_t reserve) const {
        return {static_cast<const char *>(out) + reserve, len - reserve};
    }
    void check(uint32_t reserve) const {
        FUZZ_CHECK(code == TAV_COMPRESS_OK ? out && len >= reserve : !out && len == 0);
    }
};

std::unique_ptr<uint8_t[]> exact(std::string_view text) { // of this very size: an over-read shows under ASan
    std::unique_ptr<uint8_t[]> copy(new uint8_t[text.size()]);
    std::memcpy(copy.get(), text.data(), text.size());
    return copy;
}

void compress(Result &result, std::string_view text, uint32_t reserve, int flags) {
    result.code = tav_compress2(exact(text).get(), static_cast<uint32_t>(text.size()), &result.out,
                                &result.len, reserve, flags);
    result.check(reserve);
}
void uncompress(Result &result, std::string_view text, uint32_t reserve) {
    result.code = tav_uncompress2(exact(text).get(), static_cast<uint32_t>(text.size()), &result.out,
                                  &result.len, reserve);
    result.check(reserve);
}

void there_and_back(std::string_view text, uint32_t reserve, int flags) {
    Result closed, opened;
    compress(closed, text, reserve, flags);
    if (!closed) return FUZZ_CHECK(closed.code == TAV_COMPRESS_NO_GAIN && !(flags & TAV_COMPRESS_FORCE));
    FUZZ_CHECK(flags & TAV_COMPRESS_FORCE || closed.text(reserve).size() < text.size());
    uncompress(opened, closed.text(reserve), 0);
    FUZZ_CHECK(opened && opened.text(0) == text);
}

// The message's buffer must hold what its length says, that much is the caller's part.
void message(std::string text, uint32_t reserve, int flags, bool pack) {
    if (text.size() < 20) text.resize(20);
    store32(reinterpret_cast<uint8_t *>(text.data()) + 16, static_cast<uint32_t>(text.size()) - 20);
    store16(reinterpret_cast<uint8_t *>(text.data()) + 6, pack ? 0 : 4);
    const auto run = [&](const void *msg, Result &result, bool forth) {
        result.code = forth ? tav_msg_compress2(msg, &result.out, reserve, flags)
                            : tav_msg_uncompress2(msg, &result.out, reserve, flags);
        FUZZ_CHECK(!result == !result.out);
        if (result) result.len = 20 + load32(static_cast<const uint8_t *>(result.out) + reserve + 16);
    };
    Result first, second;
    run(exact(text).get(), first, pack);
    if (!first) return;
    if (!pack) flags |= TAV_COMPRESS_FORCE;
    const auto *middle = static_cast<const char *>(first.out) + reserve;
    run(exact({middle, first.len}).get(), second, !pack);
    FUZZ_CHECK(second && second.len >= 20);
    if (pack)
        FUZZ_CHECK(std::string_view(static_cast<const char *>(second.out) + reserve, second.len) == text);
}

void plain_zlib(std::string_view text, uint32_t room) {
    const std::unique_ptr<uint8_t[]> out(new uint8_t[room]);
    uint32_t len = room;
    if (_zlib_compress(out.get(), &len, text.data(), static_cast<uint32_t>(text.size())) == 0)
        FUZZ_CHECK(len <= room && len <= _zlib_compressBound(static_cast<uint32_t>(text.size())));
    len = room;
    _zlib_uncompress(out.get(), &len, text.data(), static_cast<uint32_t>(text.size()));
    FUZZ_CHECK(len <= room);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t mode = in.u8();
    const uint32_t reserve = mode & 128 ? in.u32() % 70'000 : mode & 64 ? 60 : 0;
    const int flags = mode & 32 ? TAV_COMPRESS_FORCE : 0;
    std::string text = in.rest();
    // Large claims cost a millisecond each: few are made.
    const size_t claim = mode % 5 == 0 ? 0 : 20;
    if (!(mode & 16) && text.size() > claim + 1)
        text.replace(claim, 2, {'\0', static_cast<char>(text[claim + 1] & 7)});
    switch (mode % 5) {
    case 0: {
        Result opened;
        uncompress(opened, text, reserve);
        if (opened) there_and_back(opened.text(reserve), 0, flags);
        break;
    }
    case 1:
        there_and_back(text, reserve, flags);
        break;
    case 2:
        message(text, reserve, flags, true);
        break;
    case 3:
        message(text, reserve, flags, false);
        break;
    case 4:
        plain_zlib(text, reserve);
        break;
    }
    return 0;
}
