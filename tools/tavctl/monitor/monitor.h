// Components of tavctl monitor and tavctl log: the sockets that make this process a monitor, the copies of
// datagrams that modules send to it, the messages that these copies show, and capture files.
#pragma once

#include <bitset>
#include <deque>
#include <functional>
#include <limits>

#include "look/sockets.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_monitor.h"

namespace tavctl {

// --- copies (copies.cpp)
// A record, and the part of a datagram that follows it. Any process that may write to the socket can send it.
struct Copy {
    std::string bytes;       // as received
    uint64_t connection = 0; // number of the endpoint's connection
    pid_t process = 0;       // its process, as the kernel reports it
    unsigned listener = 0;   // number of the directory
    tav_ipc_monitor_record_st record{};
    tav_ipc_hdr_st header{}; // zeros where the datagram has no header

    bool parse(); // reads record and header from the bytes; false when they are damaged or unknown
    std::string_view payload() const {
        return std::string_view(bytes).substr(bytes.size() - record.captured);
    }
    bool is_fragment() const { return header.frag_word[0] & 1; }
    unsigned sequence() const { return header.frag_word[0] >> 1 | (header.frag_word[1] & 7u) << 7; }
};

// The words of filters, and of texts and JSON. The last outcome is that of a message of which fragments are
// missing.
enum Outcome : uint16_t { kIncomplete = TAV_IPC_MONITOR_REFUSED + 1, kOutcomes };
extern const char *const kKinds[6], *const kOutcomeNames[kOutcomes];
const char *kind_of(const tav_ipc_hdr_st &header);
std::string reason_text(unsigned reason); // "no_peer"; empty without one
std::string outcome_text(unsigned outcome, unsigned reason, unsigned tries);

// --- what makes this process a monitor (monitor_sockets.cpp)
// The endpoints of this user, or of all users for root, connect to it while it exists. Its sockets' files go
// with it, and with a process that a signal ends.
class MonitorSockets {
  public:
    MonitorSockets();
    ~MonitorSockets();
    MonitorSockets(const MonitorSockets &) = delete;
    // Binds a socket in the directory. Throws Problem, also when the modules there serve no further monitor.
    void open(const SocketDirectory &directory);
    // Waits at most 0.1 s, then takes what has come, but no more than a certain number. Hellos are among it.
    std::deque<Copy> take();
    // Sends a command to the module that the copy came from. False when that is not possible any more.
    bool command(const Copy &copy, tav_ipc_monitor_command command, uint32_t value) const;
    bool command_was_read(const Copy &copy) const; // by the module

    struct Listener {
        std::string directory, path;
        UniqueFd fd;
        uint64_t missed = 0; // copies that came while nothing more could be taken
    };
    const std::deque<Listener> &listeners() const { return listeners_; }
    uint64_t missed() const;
    uint64_t ignored() const { return ignored_; } // records that were damaged or unknown

  private:
    struct Connection {
        UniqueFd fd;
        unsigned listener;
        pid_t process;
        uint64_t missed;
    };
    void accept_at(unsigned listener);
    void read(uint64_t number, std::deque<Copy> &copies);
    void poll_for(int fd, uint64_t number) const;

    UniqueFd poll_;
    std::deque<Listener> listeners_; // numbers 0, 1, ... in epoll
    std::map<uint64_t, Connection> connections_;
    uint64_t next_ = kFirstConnection, ignored_ = 0;
    std::string buffer_;
    static constexpr uint64_t kFirstConnection = 1 << 16;
};

// --- messages (messages.cpp)
struct Message {
    tav_ipc_monitor_record_st record{}; // of the copy that decided the outcome
    tav_ipc_hdr_st header{};            // of a fragment
    pid_t process = 0;
    unsigned outcome = 0, reason = 0, tries = 0; // outcome: an event, or kIncomplete
    unsigned fragments = 1, seen = 1;            // seen: fragments whose outcome is known
    uint32_t size = 0;                           // of the whole payload
    std::string payload;                         // its beginning, as far as captured
};

// Joins the copies of fragments, so that a message is reported once. It is also reported when it begins to
// wait, and, as incomplete, when no copy came for a while or another message needs its place.
class Messages {
  public:
    using Report = std::function<void(const Message &)>;
    explicit Messages(Report report) : report_(std::move(report)) {}
    void add(const Copy &copy);
    void expire(double now_s);
    void end() { expire(std::numeric_limits<double>::infinity()); }

  private:
    struct Set {
        Message message;
        std::bitset<1024> seen;
        bool waiting = false; // was reported as waiting
        double changed_s = 0; // monotonic
    };
    using Sets = std::map<std::string, Set>;
    Sets::iterator give_up(Sets::iterator entry);

    Report report_;
    Sets sets_;
};

// --- capture files (capture_file.cpp)
// A pcapng file of link type 147 (USER0); docs/wire.md describes a packet. One interface for each directory.
class CaptureFile {
  public:
    CaptureFile(const std::string &path, const std::vector<std::string> &interfaces); // "-": standard output
    void add(const Copy &copy);
    void add_statistics(unsigned interface, uint64_t packets, uint64_t missed);
    void flush(); // throws Problem; when a pipe has no reader any more, standard output counts as failed

  private:
    void block(uint32_t type, std::initializer_list<std::string_view> parts);
    const std::string path_;
    UniqueFd owned_;
    std::string pending_; // bytes not yet written
};

} // namespace tavctl
