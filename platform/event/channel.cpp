#include "channel.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "loop.h"
#include "status.h"

#include "common/facts.h"

namespace tavcl_ev {

namespace {

// Datagrams for one sendmmsg. A destination's queue takes eleven with the kernel's default limit.
constexpr unsigned kBatch = 16;
// Batches for one writable event, so that a destination with a long queue leaves the others their turn.
constexpr unsigned kMaxBatchesPerTurn = 4;
// An eighth of the default send-wait time: progress is then known about as exactly with longer waits, too.
constexpr uint64_t kLongestTick_ms = 125;
// Between two tries without a descriptor to watch. A reader empties its queue in less, so shorter only costs
// CPU.
constexpr uint64_t kRetryByPath_ms = 5;
// A stat of the destination's file each second costs nothing, and a replaced peer is noticed within that
// time.
constexpr uint64_t kFileCheckInterval_ms = 1000;
// While the destination is full, send() only puts datagrams into the list. A sender that does not let the
// loop run would never learn that the destination can take more, so send() tries to flush after this many
// datagrams or bytes. Not after each, because a try costs a system call. Fewer than a full queue holds
// (eleven with the kernel's default limit), so that a fast reader finds the next datagrams before it has read
// the last.
constexpr uint32_t kTryAgainPushes = 8;
constexpr uint32_t kTryAgainBytes = 256 * 1024; // four fragments, whose copying costs enough to try sooner
// The writable event comes when a quarter of the buffer is used: five of twenty datagrams (see channel.h).
constexpr int64_t kDatagramsInLoweredBuffer = 20;

// Bytes. The parts of a datagram up to this size are joined first: send takes a tenth of a microsecond less
// than sendmsg with several parts.
constexpr size_t kJoinUpTo = 2048;

void join(const iovec *parts, size_t count, char *whole) {
    for (size_t i = 0; i < count; ++i) {
        if (parts[i].iov_len > 0) memcpy(whole, parts[i].iov_base, parts[i].iov_len);
        whole += parts[i].iov_len;
    }
}

// Estimates what the kernel charges to the send buffer for a datagram: its own record, and the bytes in
// blocks of powers of two, above 16 KiB in pages. All constants are in bytes.
int64_t charged_bytes(uint32_t len) {
    constexpr int64_t kRecord = 256, kTrailer = 320, kLinear = 16384, kPage = 4096;
    const int64_t needed = len + kTrailer;
    if (needed > kLinear) return kRecord + (needed + kPage - 1) / kPage * kPage;
    return kRecord +
           std::max<int64_t>(512, static_cast<int64_t>(std::bit_ceil(static_cast<uint32_t>(needed))));
}

const sockaddr *generic(const cl_sockaddr_t &address) {
    return reinterpret_cast<const sockaddr *>(&address.addr);
}

bool lost_peer(int error) { return error == ECONNREFUSED || error == ENOTCONN || error == ECONNRESET; }

} // namespace

Channel::Channel(Loop &loop, int bound_fd, const cl_sockaddr_t &destination, bool may_connect) noexcept
    : loop_(loop), bound_fd_(bound_fd), destination_(destination),
      may_connect_(may_connect), batch_{[](void *self) { static_cast<Channel *>(self)->send_batch(); },
                                        this} {}

Channel::~Channel() {
    loop_.batches().remove(batch_);
    loop_.stop_timer(retry_timer_);
    loop_.stop_timer(tick_timer_);
    close_descriptor();
}

void Channel::send(Send *send) noexcept {
    const uint64_t now = coarse_clock_ms();
    last_used_ms_ = now;
    if (stalled_) {
        waiting_.push(send);
        // A sender that only fills the list, and does not let the loop run, would leave a fast reader idle.
        pushed_bytes_ += send->len;
        if (++pushed_ < kTryAgainPushes && pushed_bytes_ < kTryAgainBytes) return;
        pushed_bytes_ = pushed_ = 0;
        return flush();
    }
    if (loop_.batches().on()) return add_to_batch(send);
    const int error = try_send(*send, now);
    if (error == EAGAIN && loop_.send_wait_ms() > 0) {
        waiting_.push(send);
        return stall(clock_ms());
    }
    if (!connected_) close_descriptor();
    loop_.finish(send, status_of(error));
}

int Channel::send_now(const iovec *parts, size_t count, uint32_t len) noexcept {
    if (waits() || loop_.batches().on()) return CL_EV_WOULD_BLOCK;
    const uint64_t now = coarse_clock_ms();
    last_used_ms_ = now;
    const int error = try_send(Datagram{parts, count, len}, now);
    if (!connected_) close_descriptor();
    return status_of(error);
}

// --- one datagram ----------------------------------------------------------------------------------

int Channel::try_send(const Send &send, uint64_t now) noexcept {
    const iovec whole{const_cast<void *>(send.data), send.len};
    return try_send(Datagram{&whole, 1, send.len}, now);
}

// Returns 0 or the errno.
int Channel::try_send(const Datagram &datagram, uint64_t now) noexcept {
    if (!fd_ && !open_descriptor()) return send_by_path(datagram);
    notice_new_owner(now);
    if (!connected_) {
        const int error = connect_afresh(now);
        return error ? error : send_connected(datagram);
    }
    const int error = send_connected(datagram);
    if (!lost_peer(error)) return error;
    // The peer is gone, but another process may have bound its path since.
    const int connect_error = connect_afresh(now);
    return connect_error ? connect_error : send_connected(datagram);
}

int Channel::send_connected(const Datagram &datagram) noexcept {
    constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
    make_room_for(datagram.len);
    if (datagram.count == 1)
        return ::send(fd_.get(), datagram.parts->iov_base, datagram.len, kFlags) < 0 ? errno : 0;
    if (datagram.len <= kJoinUpTo) {
        char whole[kJoinUpTo];
        join(datagram.parts, datagram.count, whole);
        return ::send(fd_.get(), whole, datagram.len, kFlags) < 0 ? errno : 0;
    }
    msghdr message{};
    message.msg_iov = const_cast<iovec *>(datagram.parts);
    message.msg_iovlen = datagram.count;
    return sendmsg(fd_.get(), &message, kFlags) < 0 ? errno : 0;
}

int Channel::send_by_path(const Datagram &datagram) noexcept {
    msghdr message{};
    message.msg_name = const_cast<sockaddr *>(generic(destination_));
    message.msg_namelen = destination_.len;
    message.msg_iov = const_cast<iovec *>(datagram.parts);
    message.msg_iovlen = datagram.count;
    return sendmsg(bound_fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? errno : 0;
}

bool Channel::open_descriptor() noexcept {
    if (!may_connect_ || !loop_.may_open_channel()) return false;
    fd_ = make_datagram_socket();
    if (!fd_) return false;
    loop_.channel_opened();
    socklen_t size = sizeof full_buffer_;
    getsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUF, &full_buffer_, &size);
    buffer_ = full_buffer_;
    return true;
}

// A channel without a listener keeps no descriptor, so names that a peer invents cannot use them up.
void Channel::close_descriptor() noexcept {
    if (!fd_) return;
    watch_.close(); // before the descriptor
    fd_.reset();
    connected_ = false;
    loop_.channel_closed();
}

// Returns 0 or the errno. The file is identified before connecting. If it is replaced in between, the next
// check finds another file and connects again.
int Channel::connect_afresh(uint64_t now) noexcept {
    file_ = identify_socket(destination_.addr.sun_path, true);
    file_seen_ms_ = now;
    connected_ = connect(fd_.get(), generic(destination_), destination_.len) == 0;
    return connected_ ? 0 : errno;
}

// A connected socket keeps sending to the same peer, even when its path has another owner by now, or none.
void Channel::notice_new_owner(uint64_t now) noexcept {
    if (!connected_ || now < file_seen_ms_ + kFileCheckInterval_ms) return;
    file_seen_ms_ = now;
    if (identify_socket(destination_.addr.sun_path, true) != file_) connected_ = false;
}

// --- the batch -------------------------------------------------------------------------------------

void Channel::add_to_batch(Send *send) noexcept {
    Batches &batches = loop_.batches();
    if (batches.empty()) loop_.nudge(); // the turn that ends it
    batches.add(batch_);
    waiting_.push(send);
    if (++batched_ >= batches.most()) {
        batches.remove(batch_);
        send_batch();
    } else if (batches.overdue()) {
        batches.send_all();
    }
}

// What the destination does not take begins a stall.
void Channel::send_batch() noexcept {
    batched_ = 0;
    if (stalled_ || !waits()) return;
    const uint64_t now = clock_ms();
    const bool may_wait = loop_.send_wait_ms() > 0;
    notice_new_owner(now);
    while (waits()) {
        if (send_many()) continue;
        const int error = try_send(*waiting_.front(), now);
        if (error == EAGAIN && may_wait) return stall(now);
        finish_front(error);
    }
    if (!connected_) close_descriptor();
}

// --- the stall -------------------------------------------------------------------------------------

// The first of the waiting datagrams found the destination full.
void Channel::stall(uint64_t now) noexcept {
    last_progress_ms_ = now;
    start_tick(now);
    if (!tick_timer_) {
        while (waits()) finish_front(EAGAIN);
        return;
    }
    stalled_ = true;
    last_unread_ = unread_bytes();
    size_buffer_for(waiting_.front()->len);
    wait_for_room();
}

void Channel::wait_for_room() noexcept {
    const auto by_watch = [](void *self) {
        auto *channel = static_cast<Channel *>(self);
        channel->last_progress_ms_ = clock_ms(); // it is writable, so something was read
        channel->flush();
    };
    if (fd_ && (watch_.opened() || watch_.open(loop_.uv(), fd_.get(), by_watch, this)) &&
        watch_.start_writing())
        return;
    const auto by_timer = [](void *self) {
        auto *channel = static_cast<Channel *>(self);
        channel->retry_timer_ = 0;
        channel->flush();
        if (channel->waits()) channel->wait_for_room();
    };
    retry_timer_ = loop_.start_timer(later(clock_ms(), kRetryByPath_ms), by_timer, this, false);
}

void Channel::flush() noexcept {
    const uint64_t now = clock_ms();
    for (unsigned batches = 0; waits() && batches < kMaxBatchesPerTurn;) {
        if (const unsigned sent = send_many()) {
            last_progress_ms_ = now;
            ++batches;
            if (sent < kBatch) break;
            continue;
        }
        const int error = try_send(*waiting_.front(), now);
        if (error == EAGAIN) break;
        if (error == 0) last_progress_ms_ = now;
        finish_front(error);
    }
    last_used_ms_ = now;
    if (waits()) return size_buffer_for(waiting_.front()->len);
    end_stall();
    if (!connected_) close_descriptor();
}

// Sends up to a batch of the waiting datagrams. Returns how many left. The result 0 may also mean an error of
// the first one, which try_send then examines.
unsigned Channel::send_many() noexcept {
    if (!connected_) return 0;
    mmsghdr headers[kBatch];
    iovec places[kBatch];
    unsigned count = 0;
    uint32_t longest = 0;
    for (Send *send = waiting_.front(); send && count < kBatch; send = send->next, ++count) {
        places[count] = {const_cast<void *>(send->data), send->len};
        headers[count] = {};
        headers[count].msg_hdr.msg_iov = &places[count];
        headers[count].msg_hdr.msg_iovlen = 1;
        longest = std::max(longest, send->len);
    }
    make_room_for(longest);
    const int sent = sendmmsg(fd_.get(), headers, count, MSG_DONTWAIT | MSG_NOSIGNAL);
    for (int i = 0; i < sent; ++i) finish_front(0);
    return sent > 0 ? static_cast<unsigned>(sent) : 0;
}

void Channel::finish_front(int error) noexcept { loop_.finish(waiting_.pop(), status_of(error)); }

void Channel::end_stall() noexcept {
    stalled_ = false;
    loop_.stop_timer(retry_timer_);
    loop_.stop_timer(tick_timer_);
    retry_timer_ = tick_timer_ = 0;
    if (watch_.opened()) watch_.stop();
}

void Channel::tick() noexcept {
    const uint64_t now = clock_ms();
    const int unread = unread_bytes();
    if (unread != last_unread_) last_progress_ms_ = now;
    last_unread_ = unread;
    if (now - last_progress_ms_ >= loop_.send_wait_ms()) {
        while (waits()) finish_front(EAGAIN);
    } else {
        notice_new_owner(now);
        if (fd_ && !connected_) flush();
    }
    if (!waits()) return end_stall();
    start_tick(now);
}

// The interval, an eighth of the send-wait time, is the precision with which the last progress is known.
void Channel::start_tick(uint64_t now) noexcept {
    const uint64_t wait = loop_.send_wait_ms();
    const uint64_t step = std::clamp<uint64_t>(wait / 8, 1, kLongestTick_ms);
    const uint64_t due = std::min(later(now, step), later(last_progress_ms_, wait));
    tick_timer_ = loop_.start_timer(
        due, [](void *self) { static_cast<Channel *>(self)->tick(); }, this, false);
}

// Our bytes that the destination has not read yet, as the kernel counts them.
int Channel::unread_bytes() const noexcept {
    int bytes = 0;
    if (fd_) ioctl(fd_.get(), SIOCOUTQ, &bytes);
    return bytes;
}

// --- the send buffer -------------------------------------------------------------------------------

void Channel::make_room_for(uint32_t len) noexcept {
    if (buffer_ < full_buffer_ && 2 * charged_bytes(len) > buffer_) {
        set_send_buffer(fd_.get(), tavipc::kSendBuffer);
        buffer_ = full_buffer_;
    }
}

void Channel::size_buffer_for(uint32_t len) noexcept {
    if (!fd_) return;
    const auto wanted =
        static_cast<int>(std::min<int64_t>(kDatagramsInLoweredBuffer * charged_bytes(len), full_buffer_));
    if (wanted == buffer_) return;
    const int half = wanted / 2; // the kernel doubles it
    if (setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUF, &half, sizeof half) == 0) buffer_ = wanted;
}

} // namespace tavcl_ev
