// AddressSanitizer does not see what zlib reads: these read it before.
#pragma once

#include <dlfcn.h>
#include <zlib.h>

namespace fuzz {

inline int checked(const char *name, Bytef *dest, uLongf *dest_len, const Bytef *source, uLong source_len) {
    static volatile Bytef sum;
    for (uLong i = 0; i < source_len; ++i) sum = static_cast<Bytef>(sum ^ source[i]);
    return reinterpret_cast<decltype(&::uncompress)>(dlsym(RTLD_NEXT, name))(dest, dest_len, source,
                                                                             source_len);
}

} // namespace fuzz

extern "C" {

int compress(Bytef *dest, uLongf *dest_len, const Bytef *source, uLong source_len) {
    return fuzz::checked("compress", dest, dest_len, source, source_len);
}
int uncompress(Bytef *dest, uLongf *dest_len, const Bytef *source, uLong source_len) {
    return fuzz::checked("uncompress", dest, dest_len, source, source_len);
}

} // extern "C"
