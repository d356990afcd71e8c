// Hash tables with byte strings as keys: a power of two of buckets, each a chain of entries that contain
// their key.
//
// During a walk (walks > 0) no entry moves. The table grows only after the last walk. A deleted entry leaves
// its chain, but keeps its link and its memory until then: it is marked dead and put on a list. A walk is
// therefore a plain pass over the chains that skips dead entries, and a visitor may delete and insert at
// will. It allocates nothing. The number of buckets only ever doubles, so a cookie (a bucket number, modulo
// that count) continues where it was, and the promised number of calls covers all buckets from any starting
// point.
#include "tavbase.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "seeded_hash.h"

namespace {

constexpr size_t kFirstBuckets = 16; // 128 bytes; most tables of an endpoint stay this small

struct Entry {
    Entry *next;
    union {
        void *value;
        Entry *next_dead; // of a dead entry
    };
    uint32_t hash;
    uint32_t key_len;
    bool dead;
    char key[]; // key_len bytes

    bool matches(uint32_t other_hash, const void *other, uint32_t other_len) const {
        return hash == other_hash && key_len == other_len &&
               (other_len == 0 || memcmp(key, other, other_len) == 0);
    }
};

using Buckets = std::unique_ptr<Entry *[]>;

Buckets make_buckets(size_t number) { return Buckets(new (std::nothrow) Entry *[number]()); }

Entry *make_entry(uint32_t hash, const void *key, uint32_t key_len, void *value) {
    void *memory = malloc(sizeof(Entry) + key_len);
    if (!memory) return nullptr;
    auto *entry = new (memory) Entry{nullptr, {value}, hash, key_len, false};
    if (key_len > 0) memcpy(entry->key, key, key_len);
    return entry;
}

bool valid_key(const void *key, uint32_t key_len) { return key || key_len == 0; }

} // namespace

struct xhash {
    void (*release)(void *value);
    tavbase::HashKey hash_key;
    Buckets buckets;
    size_t bucket_count = kFirstBuckets;
    uint32_t count = 0;
    uint32_t walks = 0;
    Entry *dead_entries = nullptr;

    uint32_t hash(const void *key, uint32_t key_len) const {
        return static_cast<uint32_t>(tavbase::seeded_hash(hash_key, key, key_len));
    }
    Entry **chain(uint32_t hash_value) const { return &buckets[hash_value & (bucket_count - 1)]; }

    // Returns the link to the entry, or the null link at the end of its chain.
    Entry **find(uint32_t hash_value, const void *key, uint32_t key_len) const {
        Entry **link = chain(hash_value);
        while (*link && !(*link)->matches(hash_value, key, key_len)) link = &(*link)->next;
        return link;
    }

    void drop(void *value) const {
        if (release && value) release(value);
    }

    void *unlink(Entry **link) {
        Entry *const entry = *link;
        void *const value = entry->value;
        *link = entry->next;
        --count;
        if (walks > 0) {
            entry->dead = true;
            entry->next_dead = std::exchange(dead_entries, entry);
        } else {
            free(entry);
        }
        return value;
    }

    void grow_if_full() {
        if (walks > 0 || count <= bucket_count) return;
        const size_t old_count = bucket_count;
        size_t new_count = old_count;
        while (new_count < count) new_count *= 2; // insertions during a walk may need several steps
        Buckets wider = make_buckets(new_count);
        if (!wider) return; // the chains grow instead
        const Buckets old = std::exchange(buckets, std::move(wider));
        bucket_count = new_count;
        for (size_t i = 0; i < old_count; ++i)
            for (Entry *entry = old[i]; entry;) {
                Entry *const next = entry->next;
                entry->next = std::exchange(*chain(entry->hash), entry);
                entry = next;
            }
    }

    // Visits `number` buckets from `first` on, continuing at the beginning; first may exceed their count.
    int walk(size_t first, size_t number, void *context, xhash_visitor visit) {
        ++walks;
        int result = 0;
        for (size_t i = 0; i < number && result == 0; ++i)
            for (Entry *entry = buckets[(first + i) & (bucket_count - 1)]; entry && result == 0;
                 entry = entry->next)
                if (!entry->dead) result = visit(entry->key, entry->key_len, entry->value, context);
        if (--walks == 0) {
            while (dead_entries) free(std::exchange(dead_entries, dead_entries->next_dead));
            grow_if_full();
        }
        return result;
    }
};

struct xhash_cookie {
    double fraction;
    size_t bucket = 0;
};

xhash_t *xhash_create(void (*release)(void *value), uint32_t) noexcept {
    Buckets buckets = make_buckets(kFirstBuckets);
    return buckets ? new (std::nothrow) xhash{release, tavbase::hash_key(), std::move(buckets)} : nullptr;
}

void xhash_destroy(xhash_t *table) noexcept {
    if (!table) return;
    for (size_t i = 0; i < table->bucket_count; ++i)
        for (Entry *entry = table->buckets[i]; entry;) {
            Entry *const gone = std::exchange(entry, entry->next);
            table->drop(gone->value);
            free(gone);
        }
    delete table;
}

int xhash_insert(xhash_t *table, const void *key, uint32_t key_len, void *value) noexcept {
    if (!table || !valid_key(key, key_len)) return -1;
    const uint32_t hash = table->hash(key, key_len);
    if (Entry *const old = *table->find(hash, key, key_len)) {
        void *const replaced = std::exchange(old->value, value);
        if (replaced != value) table->drop(replaced);
        return 0;
    }
    Entry *const entry = make_entry(hash, key, key_len, value);
    if (!entry) return -1;
    entry->next = std::exchange(*table->chain(hash), entry);
    ++table->count;
    table->grow_if_full();
    return 0;
}

int xhash_search(const xhash_t *table, const void *key, uint32_t key_len, void **value) noexcept {
    if (!table || !valid_key(key, key_len)) return -1;
    const Entry *const entry = *table->find(table->hash(key, key_len), key, key_len);
    if (!entry) return -1;
    if (value) *value = entry->value;
    return 0;
}

int xhash_delete(xhash_t *table, const void *key, uint32_t key_len) noexcept {
    if (!table || !valid_key(key, key_len)) return -1;
    Entry **const link = table->find(table->hash(key, key_len), key, key_len);
    if (!*link) return -1;
    table->drop(table->unlink(link)); // the value last, because the key may point into it
    return 0;
}

uint32_t xhash_count(const xhash_t *table) noexcept { return table ? table->count : 0; }

int xhash_walk(xhash_t *table, void *context, xhash_visitor visit) noexcept {
    return table && visit ? table->walk(0, table->bucket_count, context, visit) : -1;
}

xhash_cookie_t *xhash_cookie_create(float fraction) noexcept {
    if (!(fraction > 0)) return nullptr;
    return new (std::nothrow) xhash_cookie{std::min(1.0, static_cast<double>(fraction))};
}

void xhash_cookie_destroy(xhash_cookie_t *cookie) noexcept { delete cookie; }

int xhash_walk_partial(xhash_t *table, xhash_cookie_t *cookie, void *context, xhash_visitor visit) noexcept {
    if (!table || !cookie || !visit) return -1;
    const size_t buckets = table->bucket_count;
    const auto portion = static_cast<size_t>(std::ceil(static_cast<double>(buckets) * cookie->fraction));
    const size_t first = std::exchange(cookie->bucket, cookie->bucket + portion);
    return table->walk(first, portion, context, visit);
}
