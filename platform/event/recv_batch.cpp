#include "recv_batch.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace tavcl_ev {

RecvBatch::RecvBatch() : buffers_(static_cast<char *>(aligned_alloc(64, kSlots * kStride))) {
    if (!buffers_) throw std::bad_alloc();
    for (unsigned i = 0; i < kSlots; ++i) {
        places_[i] = {buffers_.get() + i * kStride, kSlotSize};
        headers_[i] = {};
        headers_[i].msg_hdr.msg_name = &names_[i].addr;
        headers_[i].msg_hdr.msg_iov = &places_[i];
        headers_[i].msg_hdr.msg_iovlen = 1;
    }
}

int RecvBatch::fetch(int fd, unsigned most) noexcept {
    next_ = count_ = 0;
    most = std::min(most, kSlots);
    if (most == 1) return fetch_one(fd);
    for (unsigned i = 0; i < most; ++i) headers_[i].msg_hdr.msg_namelen = sizeof names_[i].addr;
    const int fetched = recvmmsg(fd, headers_, most, MSG_DONTWAIT, nullptr);
    if (fetched > 0) count_ = static_cast<unsigned>(fetched);
    return fetched;
}

int RecvBatch::fetch_one(int fd) noexcept {
    msghdr &header = headers_[0].msg_hdr;
    header.msg_namelen = sizeof names_[0].addr;
    const ssize_t got = recvfrom(fd, buffers_.get(), kSlotSize, MSG_DONTWAIT | MSG_TRUNC,
                                 static_cast<sockaddr *>(header.msg_name), &header.msg_namelen);
    if (got < 0) return -1;
    headers_[0].msg_len = static_cast<unsigned>(got);
    header.msg_flags = static_cast<size_t>(got) > kSlotSize ? MSG_TRUNC : 0;
    count_ = 1;
    return 1;
}

RecvBatch::Datagram RecvBatch::take() noexcept {
    const mmsghdr &header = headers_[next_];
    cl_sockaddr_t &from = names_[next_];
    from.len = static_cast<uint16_t>(std::min<size_t>(header.msg_hdr.msg_namelen, sizeof from.addr));
    if (from.len <= offsetof(sockaddr_un, sun_path)) from = {};
    const char *data = buffers_.get() + next_ * kStride;
    ++next_;
    if (header.msg_hdr.msg_flags & MSG_TRUNC) return {nullptr, 0, &from};
    return {data, header.msg_len, &from};
}

bool RecvBatchPool::reserve() noexcept {
    if (count_ == 0) give_back(take());
    return count_ > 0;
}

std::unique_ptr<RecvBatch> RecvBatchPool::take() noexcept try {
    return count_ > 0 ? std::move(kept_[--count_]) : std::make_unique<RecvBatch>();
} catch (const std::bad_alloc &) {
    return nullptr;
}

void RecvBatchPool::give_back(std::unique_ptr<RecvBatch> batch) noexcept {
    if (batch && count_ < kMaxKept) kept_[count_++] = std::move(batch);
}

} // namespace tavcl_ev
