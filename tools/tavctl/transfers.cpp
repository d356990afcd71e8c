#include "transfers.h"

#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "console.h"
#include "problem.h"

namespace fs = std::filesystem;

namespace tavctl {

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1)
        throw_crypto_problem("SHA-256");
}

void Sha256::update(const void *data, size_t size) {
    if (EVP_DigestUpdate(context_.get(), data, size) != 1) throw_crypto_problem("SHA-256");
}

std::string Sha256::hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_DigestFinal_ex(context_.get(), digest, &length) != 1) throw_crypto_problem("SHA-256");
    return hex_of({reinterpret_cast<const char *>(digest), length});
}

unsigned drop_unfinished_files() {
    unsigned dropped = 0;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd", error)) {
        const std::string target = fs::read_symlink(entry.path(), error).string();
        if (error || !target.starts_with("/tmp/ipc_file.")) continue;
        const std::string number = entry.path().filename();
        int fd = -1;
        std::from_chars(number.data(), number.data() + number.size(), fd);
        const int flags = fcntl(fd, F_GETFL); // a complete one is at most read
        if (flags >= 0 && (flags & O_ACCMODE) != O_RDONLY && unlink(target.c_str()) == 0) ++dropped;
    }
    return dropped;
}

} // namespace tavctl
