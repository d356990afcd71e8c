// The watches of one loop for signals, and the process-wide handler that they share.
//
// The handler marks the signal in the mailbox of each loop that watches it. The program's own disposition of
// a signal is kept from the first watch in the process to the last.
#pragma once

#include <cstdint>
#include <vector>

#include "tavcl_loop.h"

namespace tavcl_ev {

class Loop;

class SignalWatches {
  public:
    explicit SignalWatches(Loop &loop) noexcept : loop_(loop) {}
    ~SignalWatches() { close(); }
    SignalWatches(const SignalWatches &) = delete;
    SignalWatches &operator=(const SignalWatches &) = delete;

    // Returns 0 with errno set on failure. May throw bad_alloc.
    cl_signal_t start(int signo, cl_signal_cb callback, void *argument);
    void stop(cl_signal_t id) noexcept;
    void close() noexcept;

  private:
    struct Watch {
        cl_signal_t id; // rising
        int signo;
        cl_signal_cb callback;
        void *argument;
    };
    void run(uint64_t caught) noexcept;
    void call_watches(int signo) noexcept;
    void set_mask() const noexcept;

    Loop &loop_;
    std::vector<Watch> watches_; // in the order of their start
};

// For the handlers of fork. In the child, all dispositions are those from before the watches.
void lock_signals() noexcept;
void unlock_signals() noexcept;
void restore_signals_in_child() noexcept;

} // namespace tavcl_ev
