// The allow-list check, which precedes the creation of an endpoint. c_get_process allows a process if the
// SHA-256 of its executable's name is in "@/../config/linux.json", a JSON object with the array "linux", and
// "@/../config/linux_sign.json" holds, in base64, a signature of that file by the compiled-in key.
//
// The signed text is the hexadecimal SHA-256 of the list file, padded by PKCS #1 v1.5 without digest
// information. The list is hashed during a first reading and searched after a second one. Both readings must
// have the same digest, because the file can be replaced in between. Nothing is kept between calls, and every
// failure refuses the process.
#define OPENSSL_SUPPRESS_DEPRECATED // this format needs the low-level RSA functions

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <unistd.h>

#include <cjson/cJSON.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "agentid/whole_file.h"
#include "allowlist_key.h"
#include "common/fork_mutex.h"
#include "common/log.h"
#include "common/regular_file.h"
#include "tavipc/tav_agentid.h"

#define LOG_REFUSAL(...) TAV_LOG(1, "ipc_crypt", __VA_ARGS__)
#define LOG_DETAIL(...) TAV_LOG(4, "ipc_crypt", __VA_ARGS__)

namespace tavipc {
namespace {

// Sizes in bytes.
constexpr size_t kPathSize = 1024;    // of the resolved paths; a longer path is cut, and no such file exists
constexpr size_t kExePathSize = 4096; // PATH_MAX of Linux
constexpr size_t kNameSize = 4096;    // fits every name of an executable path
constexpr size_t kChunkSize = 4096;   // of the list, hashed at a time: one page
constexpr size_t kHexSize = size_t{2} * SHA256_DIGEST_LENGTH;
constexpr char kListMember[] = "linux";

// Held during each call of a function of libcrypto that may take a lock of libcrypto, and during fork: a
// child that inherited such a lock from another thread would wait for it for ever. Not held while a log line
// is written, because a sink may fork.
constinit std::mutex g_libcrypto;
[[maybe_unused]] const bool g_forks_wait = tavipc::lock_during_forks<g_libcrypto>();
using CryptoGuard = std::lock_guard<std::mutex>;

template <auto release> struct Releaser {
    template <class T> void operator()(T *object) const { release(object); }
};
void free_key(RSA *key) {
    const CryptoGuard guard(g_libcrypto);
    RSA_free(key);
}
using Bio = std::unique_ptr<BIO, Releaser<BIO_free_all>>;
using RsaKey = std::unique_ptr<RSA, Releaser<free_key>>;
using Json = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>;
using Bytes = MallocPtr<unsigned char>;

// Removes what libcrypto adds to the thread's error queue, which belongs to the application.
class ErrorQueueGuard {
  public:
    ErrorQueueGuard() {
        const CryptoGuard guard(g_libcrypto);
        ERR_set_mark();
    }
    ~ErrorQueueGuard() {
        const CryptoGuard guard(g_libcrypto);
        ERR_pop_to_mark();
    }
    ErrorQueueGuard(const ErrorQueueGuard &) = delete;
    ErrorQueueGuard &operator=(const ErrorQueueGuard &) = delete;
};

class Sha256 {
  public:
    Sha256() { SHA256_Init(&context_); }
    ~Sha256() { OPENSSL_cleanse(&context_, sizeof context_); }
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;
    void update(const void *data, size_t size) { SHA256_Update(&context_, data, size); }
    void finish(unsigned char *digest) { SHA256_Final(digest, &context_); }

  private:
    SHA256_CTX context_;
};

struct HexDigest {
    char text[kHexSize + 1] = {};

    bool encode(const unsigned char *digest) {
        return Hex_Encode_Lower(digest, SHA256_DIGEST_LENGTH, text, kHexSize) >= 0;
    }
    bool of(const void *data, size_t size) {
        unsigned char digest[SHA256_DIGEST_LENGTH];
        const CryptoGuard guard(g_libcrypto);
        return SHA256(static_cast<const unsigned char *>(data), size, digest) && encode(digest);
    }
};

struct ListFiles {
    char list[kPathSize] = {};
    char signature[kPathSize] = {};

    ListFiles() {
        dirutils_path_transform("@/../config/linux.json", list, kPathSize);
        dirutils_path_transform("@/../config/linux_sign.json", signature, kPathSize);
    }
};

Bytes allocate_zeroed(size_t size) {
    Bytes bytes(static_cast<unsigned char *>(std::calloc(size, 1)));
    if (!bytes) LOG_REFUSAL("calloc failed");
    return bytes;
}

// --- the process's name

bool copy_exe_name(char (&name)[kNameSize]) {
    char path[kExePathSize + 1] = {};
    const ssize_t length = ::readlink("/proc/self/exe", path, kExePathSize);
    if (length < 1) {
        LOG_REFUSAL("get process path failed, ret %d", static_cast<int>(length));
        return false;
    }
    const char *slash = std::strrchr(path, '/');
    if (!slash) {
        LOG_REFUSAL("get process name failed");
        return false;
    }
    const size_t name_length = str_strlcpy(name, slash + 1, kNameSize);
    if (name_length < kNameSize) return true;
    LOG_REFUSAL("name size is small, at least %d", static_cast<int>(name_length + 1));
    return false;
}

bool get_process_name(char (&name)[kNameSize]) {
    if (!copy_exe_name(name)) {
        LOG_REFUSAL("get process name failed");
        return false;
    }
    LOG_DETAIL("process name is %s", name);
    return true;
}

bool digest_name(const char *name, HexDigest &digest) {
    if (!digest.of(name, std::strlen(name))) {
        LOG_REFUSAL("cal str %s base64 failed, sha256 is: %s", name, digest.text);
        LOG_REFUSAL("name %s sha256 failed", name);
        return false;
    }
    LOG_DETAIL("name %s sha256 %s", name, digest.text);
    return true;
}

// --- the signature

RsaKey load_public_key() {
    RsaKey key;
    bool opened = false;
    {
        const CryptoGuard guard(g_libcrypto);
        const Bio bio{BIO_new_mem_buf(kAllowlistKey, -1)};
        opened = bio != nullptr;
        if (opened) key.reset(PEM_read_bio_RSA_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    }
    if (key) return key;
    LOG_REFUSAL(opened ? "rsa failed, public is %s" : "bio failed, public is %s", kAllowlistKey);
    LOG_REFUSAL("get public key rsa filed, public key is %s", kAllowlistKey);
    return key;
}

bool hash_file(const char *path, unsigned char *digest) {
    const FilePtr file = open_regular_to_read(path);
    if (!file) {
        LOG_REFUSAL("fopen %s failed", path);
        return false;
    }
    Sha256 hash;
    unsigned char chunk[kChunkSize];
    while (const size_t n = std::fread(chunk, 1, kChunkSize, file.get())) hash.update(chunk, n);
    hash.finish(digest);
    return true;
}

bool digest_file(const char *path, HexDigest &digest) {
    unsigned char raw[SHA256_DIGEST_LENGTH] = {};
    if (!hash_file(path, raw)) {
        LOG_REFUSAL("cal file %s sha256 failed", path);
        LOG_REFUSAL("cal file %s base64 failed", path);
        return false;
    }
    if (!digest.encode(raw)) {
        LOG_REFUSAL("cal file %s base64 failed, sha256 is: %s", path, digest.text);
        LOG_REFUSAL("cal file %s base64 failed", path);
        return false;
    }
    LOG_DETAIL("file %s sha256 is %s", path, digest.text);
    return true;
}

int decrypt(RSA *key, const unsigned char *in, unsigned char *out) {
    const CryptoGuard guard(g_libcrypto);
    return RSA_public_decrypt(RSA_size(key), in, out, key, RSA_PKCS1_PADDING);
}

// Returns whether the text in the signature is the digest of the list.
bool signs_digest(RSA *key, const char *signature, const char *list_path, const HexDigest &digest) {
    const int key_size = RSA_size(key);
    const int signature_length = static_cast<int>(std::strlen(signature));
    const Bytes decoded = allocate_zeroed(static_cast<size_t>(key_size) + 1);
    if (!decoded) return false;
    if (Base64_Decode(signature, signature_length, decoded.get(), key_size) < 0) {
        LOG_REFUSAL("base64 decode failed, sign is %s", signature);
        return false;
    }
    // The padding has at least 11 bytes, so a NUL always follows the decrypted text.
    const Bytes decrypted = allocate_zeroed(static_cast<size_t>(key_size));
    if (!decrypted) return false;
    const auto *text = reinterpret_cast<const char *>(decrypted.get());
    const int text_size = decrypt(key, decoded.get(), decrypted.get());
    if (text_size < 0) {
        LOG_REFUSAL("ret is %d, file %s decrypt failed, sign is: %s, sign len is %d, decrypt_txt is %s",
                    text_size, list_path, signature, signature_length, text);
        return false;
    }
    if (std::string_view(text, strnlen(text, static_cast<size_t>(text_size))) == digest.text) return true;
    LOG_REFUSAL("file %s verify failed, sha256 %s, decrypt_txt is %s", list_path, digest.text, text);
    return false;
}

bool verify_signature(RSA *key, const char *signature, const char *list_path, HexDigest &list_digest) {
    if (signature[0] == '\0') {
        LOG_REFUSAL("param wrong");
        return false;
    }
    LOG_DETAIL("sign is %s, length is %d", signature, static_cast<int>(std::strlen(signature)));
    return digest_file(list_path, list_digest) && signs_digest(key, signature, list_path, list_digest);
}

// On success list_digest is the digest that was verified.
bool verify_list(RSA *key, const ListFiles &files, HexDigest &list_digest) {
    const WholeFile signature = read_whole_file(files.signature, kMaxWholeFile);
    if (!signature) {
        LOG_REFUSAL("read file %s failed", files.signature);
    } else if (verify_signature(key, signature.text(), files.list, list_digest)) {
        return true;
    } else {
        LOG_REFUSAL("file %s verify failed, sign is: %s", files.list, signature.text());
    }
    LOG_REFUSAL("file %s verify failed, sign file is %s", files.list, files.signature);
    return false;
}

// --- the list

bool has_entry(const cJSON *array, const char *digest, const char *list_text, bool &found) {
    const int count = cJSON_GetArraySize(array);
    const cJSON *entry = count > 0 ? cJSON_GetArrayItem(array, 0) : nullptr;
    for (int i = 0; i < count;
         ++i, entry = entry->next) { // access by index would walk from the head each time
        if (!entry) {
            LOG_REFUSAL("parse array[%d] json failed, content is %s", i, list_text);
            return false;
        }
        found = cJSON_IsString(entry) && std::strcmp(entry->valuestring, digest) == 0;
        if (found) break;
    }
    return true;
}

bool search_list(const char *list_text, const char *name, const HexDigest &name_digest) {
    const Json root(cJSON_Parse(list_text));
    if (!root) {
        LOG_REFUSAL("parse json failed, content is %s", list_text);
        return false;
    }
    const cJSON *array = cJSON_GetObjectItem(root.get(), kListMember);
    if (!array) {
        LOG_REFUSAL("parse object %s json failed, content is %s", kListMember, list_text);
        return false;
    }
    bool found = false;
    if (!has_entry(array, name_digest.text, list_text, found)) return false;
    if (!found) LOG_REFUSAL("process [%s] is not allowed to use ipc", name);
    return found;
}

bool is_in_verified_list(const ListFiles &files, const HexDigest &verified, const char *name,
                         const HexDigest &name_digest) {
    const WholeFile list = read_whole_file(files.list, kMaxWholeFile);
    if (!list) {
        LOG_REFUSAL("read file %s failed", files.list);
        return false;
    }
    HexDigest digest;
    if (!digest.of(list.text(), list.size) || std::strcmp(digest.text, verified.text) != 0) {
        LOG_REFUSAL("file %s verify failed, sign file is %s", files.list, files.signature);
        return false;
    }
    return search_list(list.text(), name, name_digest);
}

bool name_is_allowed(const char *name) {
    const ErrorQueueGuard guard;
    const ListFiles files;
    HexDigest name_digest;
    if (!digest_name(name, name_digest)) return false;
    const RsaKey key = load_public_key();
    HexDigest list_digest;
    return key && verify_list(key.get(), files, list_digest) &&
           is_in_verified_list(files, list_digest, name, name_digest);
}

} // namespace
} // namespace tavipc

int32_t c_get_process(void) noexcept {
    char name[tavipc::kNameSize];
    if (!tavipc::get_process_name(name)) return -1;
    if (tavipc::name_is_allowed(name)) return 0;
    LOG_REFUSAL("process [%s] is not white process", name);
    return -1;
}
