// Watches one descriptor on the loop. The libuv handle lives on by itself until libuv has let go of it, so
// the owner and the descriptor may go at any time, even inside the handler.
#pragma once

struct uv_poll_s;

namespace tavcl_ev {

class UvLoop;

class FdWatch {
  public:
    using Handler = void (*)(void *owner);

    FdWatch() = default;
    FdWatch(const FdWatch &) = delete;
    FdWatch &operator=(const FdWatch &) = delete;
    ~FdWatch() { close(); }

    // Prepares to watch a PrivateFd; nothing is watched yet. Returns false on failure.
    bool open(UvLoop &loop, int fd, Handler handler, void *owner) noexcept;
    bool opened() const noexcept { return watch_; }
    bool start_reading() noexcept;
    bool start_writing() noexcept;
    void stop() noexcept;
    // Must come before the descriptor is closed.
    void close() noexcept;

  private:
    struct Watch;
    static void on_event(uv_poll_s *handle, int status, int events);
    bool start(int events) noexcept;

    Watch *watch_ = nullptr;
};

} // namespace tavcl_ev
