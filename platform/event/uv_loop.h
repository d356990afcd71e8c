// The libuv loop under a Loop: one of our own, or the caller's. It counts our libuv handles, so that closing
// can wait for libuv to let go of each.
//
// States: live; then, in a forked child only, either private (our own loop, which has an epoll set of the
// child's by then and is closed as usual) or forgotten (the caller's loop, whose epoll set is still the
// parent's: no libuv call that could reach that set is made any more).
#pragma once

#include <atomic>
#include <uv.h>

namespace tavcl_ev {

class UvLoop {
  public:
    UvLoop() = default;
    UvLoop(const UvLoop &) = delete;
    UvLoop &operator=(const UvLoop &) = delete;
    ~UvLoop();

    bool open(uv_loop_t *foreign) noexcept; // null: one of our own
    uv_loop_t *get() noexcept { return loop_; }
    bool foreign() const noexcept { return loop_ != &own_; }

    // Every libuv handle of ours, from its making to the end of its closing; none keeps the loop alive.
    void adopt(uv_handle_t *handle) noexcept;
    void disown() noexcept;
    // Runs the loop until libuv has let go of all of them. Each is closed, or being closed, by then.
    void wait_until_closed() noexcept;

    // In a forked child, on the thread of the loop.
    void enter_child() noexcept;
    bool forgotten() const noexcept { return forgotten_; }

    // Marks that user code may be on the stack.
    class Callbacks {
      public:
        explicit Callbacks(UvLoop &loop) noexcept : loop_(loop) {
            loop_.set_waiting(false);
            ++loop_.callback_depth_;
        }
        ~Callbacks() { --loop_.callback_depth_; }
        Callbacks(const Callbacks &) = delete;
        Callbacks &operator=(const Callbacks &) = delete;

      private:
        UvLoop &loop_;
    };
    bool in_callback() const noexcept { return callback_depth_ > 0; }

    // Whether libuv may be waiting, or is about to. For signal handlers on the thread of the loop.
    bool waiting() const noexcept { return waiting_.load(std::memory_order_relaxed); }
    void set_waiting(bool on) noexcept {
        waiting_.store(on, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    // libuv adds a descriptor to its epoll set only when it waits next. on_change is called with the owner
    // each time a watch is started; changed() is true from then until that wait.
    bool changed() const noexcept { return changed_; }
    void note_change() noexcept {
        changed_ = true;
        if (on_change_) on_change_(owner_);
    }
    void forget_changes() noexcept { changed_ = false; }
    void on_change(void (*handler)(void *owner), void *owner) noexcept {
        on_change_ = handler;
        owner_ = owner;
    }

  private:
    uv_loop_t own_{};
    uv_loop_t *loop_ = nullptr;
    unsigned handles_ = 0;
    unsigned callback_depth_ = 0;
    bool forgotten_ = false;
    bool changed_ = false;
    void (*on_change_)(void *owner) = nullptr;
    void *owner_ = nullptr;
    std::atomic<bool> waiting_{false};
};

template <class Handle> uv_handle_t *as_handle(Handle *handle) noexcept {
    return reinterpret_cast<uv_handle_t *>(handle);
}

} // namespace tavcl_ev
