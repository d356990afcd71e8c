// The gate: a list, its signature file and what the signature decrypts to, all from the input. For most
// inputs the decrypted text is the digest that the list has, so that the JSON is reached. The two files live
// in memory.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <cstring>
#include <dlfcn.h>

#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "input.h"
#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace {

struct Files {
    std::string list, exchanged, signature, decrypted;
    bool exchange = false; // another list at the second reading
    int readings = 0;
} files;

std::string hex_digest(const std::string &text) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    char hex[2 * sizeof digest];
    FUZZ_CHECK(Hex_Encode_Lower(digest, sizeof digest, hex, sizeof hex) == sizeof hex);
    return {hex, sizeof hex};
}

void ignore_line(int, const char *, int, const char *text, void *) { FUZZ_CHECK(text); }

} // namespace

extern "C" {

// An empty file is none.
FILE *fopen(const char *path, const char *mode) {
    const std::string_view name(path);
    const auto open = [mode](const std::string &text) {
        return text.empty() ? nullptr : fdopen(fuzz::memory_file(text), mode);
    };
    if (name.ends_with("/config/linux_sign.json")) return open(files.signature);
    if (name.ends_with("/config/linux.json"))
        return open(files.readings++ && files.exchange ? files.exchanged : files.list);
    static const auto real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
    return real(path, mode);
}
ssize_t readlink(const char *, char *out, size_t size) noexcept {
    return static_cast<ssize_t>(std::string_view("/x/bin/fuzz").copy(out, size));
}
// As the real one: at most 11 bytes less than the key has.
int RSA_public_decrypt(int size, const unsigned char *from, unsigned char *to, RSA *, int) {
    unsigned sum = 0;
    for (int i = 0; i < size; ++i) sum += from[i];
    if (sum % 8 == 7) return -1;
    return static_cast<int>(
        files.decrypted.copy(reinterpret_cast<char *>(to), static_cast<size_t>(size) - 11));
}

} // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    error_output_set_level(4);
    error_output_set_sink(ignore_line, nullptr);
    const int before = fuzz::open_descriptors();
    fuzz::Input in(data, size);
    const uint8_t mode = in.u8();
    files = {};
    files.exchange = mode >= 248;
    files.signature = mode & 1 ? in.text(in.u16()) : std::string(344, 'A');
    const bool right = mode < 224 || files.exchange;
    if (!right) files.decrypted = in.text(in.u8());
    if (files.exchange) files.exchanged = in.text(in.u8());
    files.list = in.rest();
    if (right) files.decrypted = hex_digest(files.list);

    const int32_t result = c_get_process();
    FUZZ_CHECK(result == 0 || result == -1);
    if (result == 0) {
        FUZZ_CHECK(files.list.find(hex_digest("fuzz")) != std::string::npos ||
                   files.list.find("\\u") != std::string::npos);
        FUZZ_CHECK(right || hex_digest(files.list).compare(0, 64, files.decrypted, 0, 64) == 0);
        FUZZ_CHECK(!files.exchange || files.exchanged == files.list);
    }
    FUZZ_CHECK(fuzz::open_descriptors() == before);
    return 0;
}
