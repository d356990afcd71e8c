// Hash tables keyed by byte strings, over std::unordered_map.
//
// Keys of up to 15 bytes live in the map's node itself. Hashing is SipHash-1-3 under a key drawn once per
// process. A walk takes a snapshot of the keys and looks each one up before it is visited, so that a visitor
// may delete and insert at will. A cookie holds a bucket number; the number means nothing after the table
// has grown, but any starting point covers all buckets in the promised number of calls.
#include "tavbase.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <sys/random.h>

namespace {

struct HashKey {
    uint64_t k0 = 0, k1 = 0;

    HashKey() {
        uint64_t words[2];
        size_t have = 0;
        while (have < sizeof words) {
            const ssize_t got = getrandom(reinterpret_cast<char *>(words) + have, sizeof words - have, 0);
            if (got > 0)
                have += static_cast<size_t>(got);
            else if (errno != EINTR)
                break;
        }
        if (have < sizeof words) { // no such system call: better guessable than constant
            timespec now{};
            clock_gettime(CLOCK_REALTIME, &now);
            words[0] = static_cast<uint64_t>(now.tv_nsec) << 32 ^ static_cast<uint64_t>(now.tv_sec);
            words[1] = reinterpret_cast<uintptr_t>(this) ^ reinterpret_cast<uintptr_t>(&now) << 20;
        }
        k0 = words[0];
        k1 = words[1];
    }
};

const HashKey &hash_key() {
    static const HashKey key;
    return key;
}

class SipState {
  public:
    explicit SipState(const HashKey &key)
        : v0_(key.k0 ^ 0x736f6d6570736575), v1_(key.k1 ^ 0x646f72616e646f6d),
          v2_(key.k0 ^ 0x6c7967656e657261), v3_(key.k1 ^ 0x7465646279746573) {}

    void absorb(uint64_t word) {
        v3_ ^= word;
        round();
        v0_ ^= word;
    }
    uint64_t finish() {
        v2_ ^= 0xff;
        round();
        round();
        round();
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

struct SeededHash {
    using is_transparent = void;
    HashKey key = hash_key();

    // Not noexcept on purpose: the map then keeps each hash value in its node and does not hash the
    // neighbours in a bucket again and again.
    size_t operator()(std::string_view bytes) const {
        SipState state(key);
        const char *data = bytes.data();
        size_t left = bytes.size();
        uint64_t word = 0;
        for (; left >= sizeof word; left -= sizeof word, data += sizeof word) {
            memcpy(&word, data, sizeof word);
            state.absorb(word);
        }
        word = 0;
        if (left > 0) memcpy(&word, data, left);
        state.absorb(word | static_cast<uint64_t>(bytes.size()) << 56);
        return static_cast<size_t>(state.finish());
    }
};

using Map = std::unordered_map<std::string, void *, SeededHash, std::equal_to<>>;
using Keys = std::vector<std::string>;

bool valid_key(const void *key, uint32_t key_len) { return key || key_len == 0; }

std::string_view view(const void *key, uint32_t key_len) {
    return key ? std::string_view(static_cast<const char *>(key), key_len) : std::string_view();
}

} // namespace

struct xhash {
    void (*release)(void *value);
    Map map;

    void drop(void *value) const {
        if (release && value) release(value);
    }
};

struct xhash_cookie {
    double fraction;
    size_t bucket = 0;
};

namespace {

int visit_keys(const Keys &keys, xhash_t *table, void *context, xhash_visitor visit) {
    for (const std::string &key : keys) {
        const auto found = table->map.find(key);
        if (found == table->map.end()) continue;
        const int result = visit(key.data(), static_cast<uint32_t>(key.size()), found->second, context);
        if (result != 0) return result;
    }
    return 0;
}

// The keys of the cookie's next buckets; moves the cookie on.
Keys next_portion(const Map &map, xhash_cookie_t &cookie) {
    const size_t buckets = map.bucket_count();
    const auto wanted = static_cast<size_t>(std::ceil(static_cast<double>(buckets) * cookie.fraction));
    const size_t portion = std::clamp<size_t>(wanted, 1, buckets);
    size_t bucket = cookie.bucket < buckets ? cookie.bucket : 0;
    Keys keys;
    for (size_t i = 0; i < portion; ++i) {
        for (auto it = map.begin(bucket); it != map.end(bucket); ++it) keys.push_back(it->first);
        if (++bucket == buckets) bucket = 0;
    }
    cookie.bucket = bucket;
    return keys;
}

} // namespace

xhash_t *xhash_create(void (*release)(void *value), uint32_t) noexcept {
    try {
        return new xhash{release, {}};
    } catch (const std::exception &) {
        return nullptr;
    }
}

void xhash_destroy(xhash_t *table) noexcept {
    if (!table) return;
    if (table->release)
        for (const auto &entry : table->map) table->drop(entry.second);
    delete table;
}

int xhash_insert(xhash_t *table, const void *key, uint32_t key_len, void *value) noexcept {
    if (!table || !valid_key(key, key_len)) return -1;
    try {
        const auto [entry, is_new] = table->map.try_emplace(std::string(view(key, key_len)), value);
        if (!is_new) {
            void *const old = std::exchange(entry->second, value);
            if (old != value) table->drop(old);
        }
        return 0;
    } catch (const std::exception &) {
        return -1;
    }
}

int xhash_search(const xhash_t *table, const void *key, uint32_t key_len, void **value) noexcept {
    if (!table || !valid_key(key, key_len)) return -1;
    const auto found = table->map.find(view(key, key_len));
    if (found == table->map.end()) return -1;
    if (value) *value = found->second;
    return 0;
}

int xhash_delete(xhash_t *table, const void *key, uint32_t key_len) noexcept {
    if (!table || !valid_key(key, key_len)) return -1;
    const auto found = table->map.find(view(key, key_len));
    if (found == table->map.end()) return -1;
    void *const value = found->second;
    table->map.erase(found);
    table->drop(value); // last: the caller's key may lie inside
    return 0;
}

uint32_t xhash_count(const xhash_t *table) noexcept {
    return table ? static_cast<uint32_t>(table->map.size()) : 0;
}

int xhash_walk(xhash_t *table, void *context, xhash_visitor visit) noexcept {
    if (!table || !visit) return -1;
    Keys keys;
    try {
        keys.reserve(table->map.size());
        for (const auto &entry : table->map) keys.push_back(entry.first);
    } catch (const std::exception &) {
        return -1;
    }
    return visit_keys(keys, table, context, visit);
}

xhash_cookie_t *xhash_cookie_create(float fraction) noexcept {
    if (!(fraction > 0)) return nullptr;
    return new (std::nothrow) xhash_cookie{std::min(1.0, static_cast<double>(fraction))};
}

void xhash_cookie_destroy(xhash_cookie_t *cookie) noexcept { delete cookie; }

int xhash_walk_partial(xhash_t *table, xhash_cookie_t *cookie, void *context, xhash_visitor visit) noexcept {
    if (!table || !cookie || !visit) return -1;
    Keys keys;
    try {
        keys = next_portion(table->map, *cookie);
    } catch (const std::exception &) {
        return -1;
    }
    return visit_keys(keys, table, context, visit);
}
