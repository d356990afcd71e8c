// A variable that several threads use, each access for itself: none tears, none orders anything else.
#pragma once

#include <atomic>

namespace tavipc {

template <typename T> class Relaxed {
  public:
    constexpr Relaxed(T value = {}) : value_(value) {}
    Relaxed(const Relaxed &other) : Relaxed(T{other}) {}
    Relaxed &operator=(const Relaxed &other) { return *this = T{other}; }
    Relaxed &operator=(T value) {
        value_.store(value, std::memory_order_relaxed);
        return *this;
    }
    operator T() const { return value_.load(std::memory_order_relaxed); }
    T operator++() { return value_.fetch_add(1, std::memory_order_relaxed) + 1; }

  private:
    std::atomic<T> value_;
};

} // namespace tavipc
