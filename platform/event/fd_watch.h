// Watches one descriptor on the loop. The libuv handle lives by itself until libuv has let go of it, so that
// the owner (and the descriptor) may go at any time, also from inside the handler.
#pragma once

struct uv_poll_s;

namespace tavcl_ev {

class Loop;

class FdWatch {
  public:
    using Handler = void (*)(void *owner);

    FdWatch() = default;
    FdWatch(const FdWatch &) = delete;
    FdWatch &operator=(const FdWatch &) = delete;
    ~FdWatch() { close(); }

    // Prepares to watch; nothing is watched yet. False when that cannot be.
    bool open(Loop &loop, int fd, Handler handler, void *owner) noexcept;
    bool opened() const noexcept { return watch_; }
    bool start_reading() noexcept;
    bool start_writing() noexcept;
    void stop() noexcept;
    void close() noexcept;

  private:
    struct Watch;
    static void on_event(uv_poll_s *handle, int status, int events);
    bool start(int events) noexcept;

    Watch *watch_ = nullptr;
};

} // namespace tavcl_ev
