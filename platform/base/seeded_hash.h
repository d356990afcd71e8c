// SipHash-1-3 of a byte string with a key that is drawn once per process, so a peer that chooses the strings
// cannot choose collisions.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tavbase {

struct HashKey {
    uint64_t words[2];
};

// Returns the process's key.
const HashKey &hash_key();

class SipState {
  public:
    explicit SipState(const HashKey &key)
        : v0_(key.words[0] ^ 0x736f6d6570736575), v1_(key.words[1] ^ 0x646f72616e646f6d),
          v2_(key.words[0] ^ 0x6c7967656e657261), v3_(key.words[1] ^ 0x7465646279746573) {}

    void absorb(uint64_t word) {
        v3_ ^= word;
        round();
        v0_ ^= word;
    }
    uint64_t finish() {
        v2_ ^= 0xff;
        for (int i = 0; i < 3; ++i) round();
        return v0_ ^ v1_ ^ v2_ ^ v3_;
    }

  private:
    void round() {
        v0_ += v1_;
        v2_ += v3_;
        v1_ = std::rotl(v1_, 13) ^ v0_;
        v3_ = std::rotl(v3_, 16) ^ v2_;
        v0_ = std::rotl(v0_, 32) + v3_;
        v2_ += v1_;
        v3_ = std::rotl(v3_, 21) ^ v0_;
        v1_ = std::rotl(v1_, 17) ^ v2_;
        v2_ = std::rotl(v2_, 32);
    }

    uint64_t v0_, v1_, v2_, v3_;
};

// Hashes the bytes as little-endian words of 8. The last word is padded with zeros and has the length in its
// top byte.
inline uint64_t seeded_hash(const HashKey &key, const void *bytes, size_t length) {
    SipState state(key);
    const char *data = static_cast<const char *>(bytes);
    uint64_t word = 0;
    size_t left = length;
    for (; left >= sizeof word; left -= sizeof word, data += sizeof word) {
        memcpy(&word, data, sizeof word);
        state.absorb(word);
    }
    word = static_cast<uint64_t>(length) << 56;
    for (size_t i = 0; i < left; ++i)
        word |= static_cast<uint64_t>(static_cast<unsigned char>(data[i])) << 8 * i;
    state.absorb(word);
    return state.finish();
}

} // namespace tavbase
