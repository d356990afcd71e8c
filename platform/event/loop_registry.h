// The mailboxes of all loops that have a handle, for other threads and for signal handlers.
//
// A handle is a slot number (low 16 bits) and that slot's generation. A look-up takes no lock: it counts
// itself as a user of the slot, in the same word as the generation. A loop that ends raises the generation
// and waits until no user is left, so no thread writes to a descriptor that has been closed. A user makes no
// system call that waits, and a signal handler on the waiting thread has returned by then.
#pragma once

#include <cstdint>

namespace tavcl_ev {

class Mailbox;

// Returns the handle, or 0 when all slots are in use.
uint64_t enlist(Mailbox &mailbox) noexcept;
// The handle is stale after this call, and no other thread uses the mailbox. 0 has no effect.
void delist(uint64_t handle) noexcept;
// In a forked child: all handles are stale.
void delist_all() noexcept;

// Sets which signals (bit signo - 1) the loop's mailbox gets.
void set_caught_signals(uint64_t handle, uint64_t signals) noexcept;
// Async-signal-safe.
void catch_signal_in_all(int signo) noexcept;

// Keeps the mailbox of a handle from ending; null for a stale handle. Async-signal-safe.
class MailboxUser {
  public:
    explicit MailboxUser(uint64_t handle) noexcept;
    ~MailboxUser();
    MailboxUser(const MailboxUser &) = delete;
    MailboxUser &operator=(const MailboxUser &) = delete;
    explicit operator bool() const noexcept { return mailbox_; }
    Mailbox *operator->() const noexcept { return mailbox_; }

  private:
    uint64_t handle_;
    Mailbox *mailbox_ = nullptr;
};

} // namespace tavcl_ev
