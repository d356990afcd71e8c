// One end of a two-process connection over some system, as the benchmarks drive it.
//
// A work (works.cpp) is written once, against this interface; each system (system_*.cpp) fills it the way an
// author of a module would use that system from an event loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace bench {

class Link {
  public:
    using Handler = std::function<void(const char *data, size_t size)>;

    virtual ~Link() = default;
    Link() = default;
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    // Sends one message; waits, serving the loop, while the system takes no more.
    virtual void send(const void *data, size_t size) = 0;
    // Returns when everything accepted has left this process.
    virtual void flush() {}
    // Serves the loop until stop() is called from a handler.
    virtual void run() = 0;
    void stop() { stopped_ = true; }

    // Sends a request; on_reply runs when its answer came. The other end answers with the same bytes.
    virtual void request(const void *data, size_t size) = 0;
    virtual void serve_requests() = 0;

    Handler on_message;
    std::function<void()> on_reply;

  protected:
    bool stopped_ = false;
};

// The server end exists before the client end is made. dir is a directory for socket files.
using Maker = std::unique_ptr<Link> (*)(const std::string &dir, bool server);

struct System {
    const char *name;
    Maker make;
};

std::unique_ptr<Link> make_tavipc(const std::string &dir, bool server);
std::unique_ptr<Link> make_raw(const std::string &dir, bool server);
std::unique_ptr<Link> make_mmsg(const std::string &dir, bool server);
std::unique_ptr<Link> make_zeromq(const std::string &dir, bool server);
std::unique_ptr<Link> make_nng(const std::string &dir, bool server);
std::unique_ptr<Link> make_sdbus(const std::string &dir, bool server);

// Base for systems that know messages only: a request is a message with a serial number in front.
class MessageLink : public Link {
  public:
    void request(const void *data, size_t size) override;
    void serve_requests() override;

  protected:
    // Systems call this for each message that came.
    void deliver(const char *data, size_t size);

  private:
    uint32_t next_serial_ = 0;
    std::string buffer_;
    bool serving_ = false;
    bool requesting_ = false;
};

[[noreturn]] void fail(const char *what);
inline void check(bool ok, const char *what) {
    if (!ok) fail(what);
}

} // namespace bench
