// The two processes of tavctl bench, and what they say to one another beside what is measured.
//
// The first one sends, the second one (Peer) receives and answers. Both have an endpoint and a plain datagram
// socket in the endpoints' directory. For each run the first one tells the second what comes; the second
// tells what it saw when the end of the run reached it over the way that is measured.
#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

#include "files.h"
#include "module.h"

namespace tavctl::benching {

enum class Kind : uint32_t { kTrips, kOneWay, kLarge, kRequests, kFile };
struct Run {
    Kind kind;
    bool raw;
    size_t size;    // bytes of a message, or of the file
    double seconds; // time for the run; a file and a large message take what they take
};
struct Told {
    double seconds = 0; // from the first message to the end, as the receiver saw it
    uint64_t count = 0;
};

inline constexpr size_t kPart = TAV_IPC_FRAGMENT_PAYLOAD;
inline constexpr unsigned kWindow = 64; // requests outstanding
inline constexpr size_t kEndMark = 1;   // bytes of the datagram that ends a run over the plain sockets
inline constexpr size_t kAnswer = 2;    // and of one that confirms a part or a large message

// A record in place of any other: why the second process cannot go on.
struct Failure {
    int32_t status = 0;
    char what[512] = "", remedy[512] = "";
};

// Records between the two processes, each of a size of its own. All functions throw Problem when the other
// process has ended or failed, and when this one was interrupted.
class Channel {
  public:
    explicit Channel(Descriptor fd) : fd_(std::move(fd)) {}
    template <class T> void put(const T &record) { put(&record, sizeof record); }
    template <class T> T get() {
        T record;
        while (!get(&record, sizeof record, true)) {
        }
        return record;
    }
    template <class T> bool get_now(T &record) { return get(&record, sizeof record, false); }
    void check(); // at most ten times a second, else it does nothing

  private:
    void put(const void *record, size_t size);
    bool get(void *record, size_t size, bool wait);
    Descriptor fd_;
    double checked_ = 0;
};

// One plain datagram socket that receives, and one that sends to the other process's.
class RawEnd {
  public:
    RawEnd(const std::string &directory, Channel &channel);
    ~RawEnd() { hide(); }
    RawEnd(const RawEnd &) = delete;
    const std::string &path() const { return path_; }
    void connect(const std::string &peer);
    void hide(); // removes the socket file, which nobody needs when both are connected
    // False: with MSG_DONTWAIT, it would have to wait.
    bool send(const void *data, size_t size, int flags = 0);
    size_t receive(void *data, size_t size);

  private:
    Descriptor in_, out_;
    std::string path_;
    Channel &channel_;
};

// The second process. It ends with this object, and leaves nothing behind even when it was killed.
class Peer {
  public:
    Peer();
    ~Peer();
    Peer(const Peer &) = delete;
    // When this process's endpoint and socket are there: connects the sockets.
    void meet(RawEnd &own);
    Channel &channel() { return channel_; }
    const tav_addr_st &address() const { return address_; }

  private:
    Channel channel_;
    pid_t pid_ = -1;
    tav_addr_st address_{};
};

// A file without a name in TMPDIR, or in /tmp when own is false; it goes with its descriptor.
Descriptor scratch_file(bool own);

// The runs, at the first process: the time of a trip or message in seconds, or how many (bytes of a file) a
// second.
double run_raw(RawEnd &end, Channel &channel, const Run &run, int source);
double median(std::vector<double> values);

// Lives longer than the endpoint, whose end completes what is outstanding.
class TavipcRunner {
  public:
    double run(tav_ipc_st *ipc, Peer &peer, const Run &run, int source);

  private:
    double measure(int source);
    void send_one_way();
    double send_large();
    Told end();
    void turn(int timeout_ms);
    void send(uint32_t command, const std::string &payload);
    void wait();
    void trip();
    void came_back();
    void ask();
    void was_answered(int32_t code);
    static int on_status(int32_t code, void *self);

    tav_ipc_st *ipc_ = nullptr;
    Peer *peer_ = nullptr;
    Run run_{};
    std::string payload_;
    double begin_ = 0, until_ = 0, sent_ = 0;
    bool done_ = false;
    int32_t code_ = IPC_OK;
    uint64_t answered_ = 0;
    unsigned outstanding_ = 0;
    std::vector<double> times_;
};

// And at the second one.
Told serve_raw(RawEnd &end, const Run &run);
struct Server {
    Told told;
    double begin = 0;
    bool ended = false;
};
void serve_with(const Module &module, Server &server); // sets the callbacks
Told serve_tavipc(Server &server, Channel &channel, const Run &run);

} // namespace tavctl::benching
