// One end of a connection between processes over some system, as the benchmarks drive it.
//
// A work (works.cpp) is written once, against this interface. Each system (system_*.cpp) implements it the
// way the author of a module would use that system from an event loop. A handler may send, but not run the
// loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace bench {

// What an end is made for. The server exists before its clients are made.
struct Ends {
    std::string dir; // for socket files
    bool server;
    int client;  // number of this client
    int clients; // how many there are
    size_t size; // bytes of the largest message
    bool files;  // the server receives files
};

class Link {
  public:
    Link() = default;
    virtual ~Link() = default;
    Link(const Link &) = delete;

    // Sends one message; the server sends to the client whose message is being handled. While the system
    // accepts no more it runs the loop; inside a handler it keeps the message for later.
    virtual void send(const void *data, size_t size) = 0;
    // Sends a request, which the server answers with the same bytes; on_reply runs when they came.
    virtual void request(const void *data, size_t size) = 0;
    // Sends a file; on_reply runs when the other end has it.
    virtual void send_file(const char *path) = 0;
    // The server's part of the two.
    virtual void answer_requests() = 0;
    virtual void receive_file(const std::string &path, size_t size) = 0;

    // Runs one turn of the loop, waiting at most timeout_ms (-1: without limit) for something to do.
    virtual void turn(int timeout_ms) = 0;
    // Runs the loop until stop() is called from a handler.
    virtual void run() {
        for (stopped_ = false; !stopped_;) turn(-1);
    }
    virtual void stop() { stopped_ = true; }

    std::function<void(const char *data, size_t size)> on_message;
    std::function<void()> on_reply;
    std::function<void(const std::string &path)> on_file;

  private:
    bool stopped_ = false;
};

// Base for systems that only have messages. A request is a message with a serial number in front. A file is
// sent in chunks of 64,000 bytes, each answered before the next.
class MessageLink : public Link {
  public:
    void send(const void *data, size_t size) override;
    void request(const void *data, size_t size) override;
    void send_file(const char *path) override;
    void answer_requests() override;
    void receive_file(const std::string &path, size_t size) override;

  protected:
    // False when the system accepts no more now. The same message is tried again later.
    virtual bool try_send(const void *data, size_t size) = 0;
    // Systems call handle for each message, and writable when they may accept more.
    void handle(const char *data, size_t size);
    void writable();
    bool blocked() const { return blocked_; } // whether to wait until the system accepts more
    void block() { blocked_ = true; }

  private:
    void send_chunk(int fd);

    std::deque<std::string> backlog_; // what handlers sent and the system did not take
    bool blocked_ = false;
    bool handling_ = false;
    uint32_t serial_ = 0;
    std::string buffer_;
};

std::unique_ptr<Link> make_tavipc(const Ends &ends);
std::unique_ptr<Link> make_busy_poll(const Ends &ends);
std::unique_ptr<Link> make_batching(const Ends &ends);
std::unique_ptr<Link> make_raw_pair(const Ends &ends); // two datagram sockets, connected to one another
std::unique_ptr<Link> make_raw_open(const Ends &ends); // sockets that receive from everybody
std::unique_ptr<Link> make_mmsg(const Ends &ends);     // as the pair, many datagrams a system call
std::unique_ptr<Link> make_mmsg_open(const Ends &ends);
std::unique_ptr<Link> make_zeromq(const Ends &ends);
std::unique_ptr<Link> make_nng(const Ends &ends);
std::unique_ptr<Link> make_sdbus(const Ends &ends);

inline constexpr size_t kChunk = 64000; // bytes of a datagram when a message or file is sent in parts

[[noreturn]] void fail(const char *what);
inline void check(bool ok, const char *what) {
    if (!ok) fail(what);
}

} // namespace bench
