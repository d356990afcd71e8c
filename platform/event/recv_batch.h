// Buffers for the datagrams that one system call fetches, and a thread's pool of such batches.
//
// Memory is committed as datagrams arrive: nothing here touches a buffer that has not received one. A run of
// the loop inside a receive callback takes a second batch, hence the pool.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/socket.h>
#include <vector>

#include "common/owned.h"
#include "tavcl_ev.h"

namespace tavcl_ev {

class RecvBatch {
  public:
    static constexpr unsigned kSlots = 16;     // a full queue of eleven datagrams in one call, and some more
    static constexpr size_t kSlotSize = 65536; // bytes; the largest datagram that is not reported as too big

    RecvBatch();
    RecvBatch(const RecvBatch &) = delete;
    RecvBatch &operator=(const RecvBatch &) = delete;

    // Fetches up to most datagrams. Returns their number, or -1 with errno set.
    int fetch(int fd, unsigned most) noexcept;

    struct Datagram {
        const void *data; // null when it was truncated
        uint32_t len;
        const cl_sockaddr_t *from;
    };
    bool empty() const noexcept { return next_ == count_; }
    // The next of the fetched datagrams.
    Datagram take() noexcept;
    void discard() noexcept { next_ = count_; }

  private:
    int fetch_one(int fd) noexcept;
    // Bytes. Not a multiple of the page size, or the beginnings of all datagrams would compete for few cache
    // lines.
    static constexpr size_t kStride = kSlotSize + 64;
    tavipc::MallocPtr<char> buffers_;
    cl_sockaddr_t names_[kSlots];
    iovec places_[kSlots];
    mmsghdr headers_[kSlots];
    unsigned next_ = 0;
    unsigned count_ = 0;
};

class RecvBatchPool {
  public:
    // Makes sure that take() succeeds the next time; false when memory is short.
    bool reserve() noexcept;
    std::unique_ptr<RecvBatch> take() noexcept; // null when memory is short
    void give_back(std::unique_ptr<RecvBatch> batch) noexcept;

  private:
    static constexpr size_t kMaxKept = 4; // batches; runs of the loop are rarely nested deeper
    std::unique_ptr<RecvBatch> kept_[kMaxKept];
    size_t count_ = 0;
};

} // namespace tavcl_ev
