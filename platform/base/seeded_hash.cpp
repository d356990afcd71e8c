#include "seeded_hash.h"

#include <cerrno>

#include <sys/auxv.h>
#include <sys/random.h>

namespace tavbase {

namespace {

HashKey draw_key() {
    HashKey key{};
    ssize_t got;
    do got = getrandom(&key, sizeof key, 0);
    while (got < 0 && errno == EINTR);
    if (got == sizeof key) return key;
    // A sandbox may forbid the call. The kernel also gives every process 16 random bytes at its start.
    if (const auto *random = reinterpret_cast<const void *>(getauxval(AT_RANDOM)))
        memcpy(&key, random, sizeof key);
    return key;
}

} // namespace

const HashKey &hash_key() {
    static const HashKey key = draw_key();
    return key;
}

} // namespace tavbase
