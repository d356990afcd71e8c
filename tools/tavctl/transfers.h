// What sendfile, recvfile and bench share: digests, and files that the library is still receiving.
#pragma once

#include <memory>
#include <string>

#include <openssl/evp.h>

#include "keys.h"

namespace tavctl {

class Sha256 {
  public:
    Sha256();
    void update(const void *data, size_t size);
    std::string hex(); // ends it

  private:
    std::unique_ptr<EVP_MD_CTX, Releaser<EVP_MD_CTX_free>> context_;
};

// Removes the temporary files that this process is receiving and that are not complete: the library itself
// would do so minutes later, when the tool is gone. Returns how many there were.
unsigned drop_unfinished_files();

} // namespace tavctl
