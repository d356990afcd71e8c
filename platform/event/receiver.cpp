#include "receiver.h"

#include <algorithm>
#include <cerrno>

#include "loop.h"

namespace tavcl_ev {

namespace {

constexpr unsigned kMaxPerTurn = 64; // datagrams for one readable event; tavcl_ev.h promises it
constexpr unsigned kSingles = 4; // drains that found one datagram or none, until a drain asks for one only
constexpr uint32_t kLarge = 16 * 1024; // bytes
// Datagrams of one fetch while few wait. A receiver that answers takes them one by one, so that a peer on
// another core gets its first answer soon, and a single one is cheaper to fetch. After this many in a row
// many wait: a full batch then costs least.
constexpr unsigned kFew = 4, kManyAfter = 8;

// Returns the batch to its pool at the end of a drain.
struct BatchLoan {
    RecvBatchPool &pool;
    std::unique_ptr<RecvBatch> batch;
    ~BatchLoan() { pool.give_back(std::move(batch)); }
};

} // namespace

bool Receiver::start(int fd, cl_dunix_t socket, cl_dunix_recv_cb callback, void *context,
                     FdWatch::Handler ready, void *owner) noexcept {
    if (!callback_) {
        if (!batches_.reserve() || (!watch_.opened() && !watch_.open(loop_.uv(), fd, ready, owner)) ||
            !watch_.start_reading())
            return false;
        fd_ = fd;
        socket_ = socket;
        loop_.hold();
    }
    callback_ = callback;
    context_ = context;
    return true;
}

void Receiver::close() noexcept {
    watch_.close();
    if (callback_) loop_.drop();
    callback_ = nullptr;
    if (fetched_) fetched_->discard();
}

void Receiver::drain() noexcept {
    BatchLoan own{batches_, nullptr};
    const unsigned most = singles_ >= kSingles && singles_ % kSingles != 0 ? 1 : kMaxPerTurn;
    const uint64_t sent = loop_.sends();
    unsigned fetched = 0;
    if (most == 1) in_a_row_ = 0;
    for (unsigned left = most; callback_ && left > 0; --left) {
        if (!fetched_ || fetched_->empty()) {
            if (!own.batch && !(own.batch = batches_.take())) break;
            const unsigned wanted = std::min(left, next_fetch());
            const unsigned count = fetch(*own.batch, wanted);
            in_a_row_ = count == wanted || count > kFew ? in_a_row_ + count : 0;
            if (count == 0) break;
            fetched += count;
            fetched_ = own.batch.get();
        }
        deliver(fetched_->take(), CL_EV_OK);
    }
    if (fetched_ == own.batch.get()) fetched_ = nullptr;
    answers_ = loop_.sends() != sent;
    singles_ = fetched <= 1 ? singles_ + 1 : 0;
}

unsigned Receiver::next_fetch() const noexcept {
    if (last_len_ >= kLarge) return 1;
    if (in_a_row_ >= kManyAfter) return RecvBatch::kSlots;
    return answers_ ? 1 : kFew;
}

// Returns the number of datagrams that the batch holds.
unsigned Receiver::fetch(RecvBatch &batch, unsigned most) noexcept {
    const int fetched = batch.fetch(fd_, most);
    if (fetched >= 0) return static_cast<unsigned>(fetched);
    const int error = errno;
    // A refused connection belongs to an earlier send; the kernel reports it to the next call on the socket.
    if (error != EAGAIN && error != EINTR && error != ECONNREFUSED && error != ECONNRESET) {
        const cl_sockaddr_t nobody{};
        deliver({nullptr, 0, &nobody}, CL_EV_IO);
    }
    return 0;
}

void Receiver::deliver(const RecvBatch::Datagram &datagram, int status) noexcept {
    last_len_ = datagram.len;
    if (status == CL_EV_OK && !datagram.data) status = CL_EV_TOO_BIG;
    loop_.count_callback();
    callback_(socket_, datagram.data, datagram.len, datagram.from, status, context_);
}

} // namespace tavcl_ev
