// The list file and its signature, as bytes. All functions throw Problem.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "keys.h"

namespace tavctl {

std::string sha256_hex(std::string_view bytes);
Key built_in_key(); // the public key that the library verifies with

std::string sign(EVP_PKEY *private_key, std::string_view list);
bool signature_matches(EVP_PKEY *public_key, std::string_view list, const std::string &signature_text);

// The digests in the list; path names it in problems.
std::vector<std::string> entries_of(const std::string &list, const std::string &path);
// The list (empty: a new one) with these entries in place of its own, everything else in it kept.
std::string with_entries(const std::string &list, const std::string &path,
                         const std::vector<std::string> &entries);

} // namespace tavctl
