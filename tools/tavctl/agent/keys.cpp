#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "agent/agent.h"

namespace tavctl {
namespace {

constexpr int kKeyBits = 2048; // RSA; allowlist keygen makes this size, and the tool accepts no other

using Bio = std::unique_ptr<BIO, Releaser<BIO_free_all>>;
using PemReader = EVP_PKEY *(*)(BIO *, EVP_PKEY **, pem_password_cb *, void *);

// The text that write puts into a memory BIO.
template <class Write> std::string pem_text(Write write) {
    const Bio bio(BIO_new(BIO_s_mem()));
    if (!bio || write(bio.get()) != 1) throw_crypto_problem("cannot encode the key");
    char *data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(size));
}

std::string private_pem(EVP_PKEY *key) {
    return pem_text([key](BIO *bio) {
        return PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

Key parse_key(const std::string &text, const std::string &name, PemReader read, const char *kind) {
    const Bio bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    Key key(bio ? read(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key) throw_crypto_problem(name + " is not a " + kind + " key in PEM form");
    if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) throw Problem(name + " is not an RSA key");
    const int bits = EVP_PKEY_get_bits(key.get());
    if (bits != kKeyBits) throw Problem(name + " has " + std::to_string(bits) + " bits instead of 2048");
    return key;
}

} // namespace

void throw_crypto_problem(const std::string &what) {
    const unsigned long code = ERR_peek_last_error();
    const char *reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    ERR_clear_error();
    throw Problem(reason ? what + " (" + reason + ")" : what);
}

Key parse_public_key(const std::string &pem, const std::string &name) {
    return parse_key(pem, name, PEM_read_bio_PUBKEY, "public");
}
Key load_public_key(const std::string &path) { return parse_public_key(read_file(path), path); }
Key load_private_key(const std::string &path) {
    return parse_key(read_file(path), path, PEM_read_bio_PrivateKey, "private");
}

std::string public_pem(EVP_PKEY *key) {
    return pem_text([key](BIO *bio) { return PEM_write_bio_PUBKEY(bio, key); });
}

void make_key_pair(const std::string &private_path, const std::string &public_path, bool if_missing) {
    if (fs::exists(private_path)) {
        if (!if_missing)
            throw Problem(private_path +
                              " exists and is kept: lists signed with a lost key cannot be renewed",
                          "give another name, or sign with this key");
        if (!fs::exists(public_path))
            write_file(public_path, public_pem(load_private_key(private_path).get()));
        return;
    }
    if (!if_missing && (fs::exists(public_path) || public_path == private_path))
        throw Problem(public_path +
                          (fs::exists(public_path) ? " exists and is kept" : " would be both halves"),
                      "give another name for the public half");
    const Key key(EVP_RSA_gen(kKeyBits));
    if (!key) throw_crypto_problem("cannot generate a key");
    write_file(public_path, public_pem(key.get())); // first: a private half alone would prevent another try
    write_file(private_path, private_pem(key.get()), 0600);
}

} // namespace tavctl
