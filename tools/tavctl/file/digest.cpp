#include "file/digest.h"

#include <cerrno>
#include <vector>

#include <openssl/evp.h>
#include <unistd.h>

#include "agent/keys.h"
#include "cli/console.h"

namespace tavctl {

FileDigest digest_of(int fd, const std::atomic<bool> &stop) {
    const std::unique_ptr<EVP_MD_CTX, Releaser<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw_crypto_problem("SHA-256");
    FileDigest digest;
    std::vector<char> buffer(1u << 20);
    while (!stop) {
        const ssize_t got = pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(digest.size));
        if (got < 0) digest.error = errno;
        if (got <= 0) break;
        if (EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got)) != 1)
            throw_crypto_problem("SHA-256");
        digest.size += static_cast<uint64_t>(got);
    }
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_DigestFinal_ex(context.get(), bytes, &length) != 1) throw_crypto_problem("SHA-256");
    digest.sha256 = hex_of({reinterpret_cast<const char *>(bytes), length});
    return digest;
}

} // namespace tavctl
