// Keys of the allow-list: an RSA pair of 2,048 bits. The private half signs lists and stays with the signer;
// the public half is compiled into the library.
#pragma once

#include <memory>
#include <string>

#include <openssl/evp.h>

namespace tavctl {

template <auto release> struct Releaser {
    template <class T> void operator()(T *object) const { release(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;

// All throw Problem. A key other than RSA with 2,048 bits is refused.
Key load_public_key(const std::string &path);
Key load_private_key(const std::string &path);
Key parse_public_key(const std::string &pem, const std::string &name);
std::string public_pem(EVP_PKEY *key);

// Makes a pair, and never replaces a private key. With if_missing an existing one is kept, and a missing
// public half is made from it.
void make_key_pair(const std::string &private_path, const std::string &public_path, bool if_missing);

[[noreturn]] void throw_crypto_problem(const std::string &what);

} // namespace tavctl
