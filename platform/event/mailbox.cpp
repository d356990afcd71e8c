#include "mailbox.h"

#include <cerrno>
#include <new>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace tavcl_ev {

bool Mailbox::open() noexcept {
    fd_ = PrivateFd::of([] { return tavipc::UniqueFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)); });
    return static_cast<bool>(fd_);
}

// A full counter refuses the write; the descriptor is readable then, too.
void Mailbox::ring() const noexcept {
    const int error = errno;
    const uint64_t one = 1;
    [[maybe_unused]] const auto written = write(fd_.get(), &one, sizeof one);
    errno = error;
}

void Mailbox::silence() const noexcept {
    uint64_t times;
    [[maybe_unused]] const auto got = read(fd_.get(), &times, sizeof times);
}

bool Mailbox::post(void (*function)(void *), void *argument) noexcept {
    auto *post = new (std::nothrow) Post{posted_.load(std::memory_order_relaxed), function, argument, 0};
    if (!post) return false;
    while (!posted_.compare_exchange_weak(post->next, post, std::memory_order_release)) {
    }
    ring();
    return true;
}

void Mailbox::catch_signal(int signo) noexcept {
    caught_.fetch_or(bit_of(signo));
    ring();
}

void Mailbox::take_posted() noexcept {
    Post *reversed = nullptr;
    for (Post *post = posted_.exchange(nullptr, std::memory_order_acquire); post;)
        reversed = std::exchange(post, std::exchange(post->next, reversed));
    for (; reversed; reversed = *ready_end_) {
        reversed->order = ++last_taken_;
        *ready_end_ = reversed;
        ready_end_ = &reversed->next;
    }
}

Mailbox::Post Mailbox::pop() noexcept {
    Post *first = ready_;
    ready_ = first->next;
    if (!ready_) ready_end_ = &ready_;
    const Post copy = *first;
    delete first;
    return copy;
}

void Mailbox::clear() noexcept {
    take_posted();
    while (ready_) pop();
    caught_ = 0;
}

} // namespace tavcl_ev
