#include "ipc/received_file.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace tavipc {
namespace {

constexpr uint64_t kReserveFrom = 1 << 20;  // bytes received
constexpr uint64_t kMostReserved = 4 << 20; // bytes at a time: 65 chunks

// Above this size a write ends the process by a signal; on some file systems reserving space does, too.
uint64_t size_limit() {
    rlimit limit{};
    return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

} // namespace

bool ReceivedFile::create() {
    std::memcpy(path_, kReceivedFile, sizeof kReceivedFile);
    fd_ = UniqueFd(::mkstemp(path_));
    if (!fd_) return false;
    ::fcntl(fd_.get(), F_SETFD, FD_CLOEXEC);
    owner_ = ::getpid();
    return true;
}

// Some file systems keep what they could reserve before they failed.
void ReceivedFile::reserve(uint64_t limit, uint32_t next) {
    if (received_ + next <= reserved_ || received_ < kReserveFrom) return;
    const uint64_t ahead = std::min({received_, kMostReserved, limit - received_});
    const bool done = ::fallocate(fd_.get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(received_),
                                  static_cast<off_t>(ahead)) == 0;
    reserved_ = done ? received_ + ahead : UINT64_MAX;
    if (!done) release_reserve();
}

// Truncating a file to the length that it has frees what lies behind its end. The parent of a forked child
// may go on writing, so the child leaves that to it.
void ReceivedFile::release_reserve() {
    if (owner_ == ::getpid()) (void)!::ftruncate(fd_.get(), ::lseek(fd_.get(), 0, SEEK_END));
}

bool ReceivedFile::append(const void *data, uint32_t size) {
    const uint64_t limit = size_limit();
    if (received_ + size > limit) return false;
    reserve(limit, size);
    if (::write(fd_.get(), data, size) != static_cast<ssize_t>(size)) return false;
    received_ += size;
    return true;
}

void ReceivedFile::close() {
    if (reserved_ > received_ && reserved_ != UINT64_MAX) release_reserve();
    fd_.reset();
}

void ReceivedFile::remove() const {
    if (owner_ == ::getpid()) ::unlink(path_);
}

} // namespace tavipc
