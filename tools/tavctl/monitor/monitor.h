// What tavctl monitor and tavctl log are made of: the socket that makes this process a monitor, the copies of
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
// A record, and the part of a datagram that follows it. Any process may have sent it.
struct Copy {
    std::string bytes;   // as received
    std::string sender;  // the socket address of the module
    pid_t process = 0;   // of the sender, as the kernel reports it
    unsigned socket = 0; // number of the monitor's socket that received it
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

// --- sockets (copies.cpp)
// Modules of this user, or of all users for root, send copies while it exists. Removes the files of killed
// monitors first. Throws Problem, also when the modules have no place for another monitor.
class MonitorSocket {
  public:
    explicit MonitorSocket(const SocketDirectory &directory);
    ~MonitorSocket();
    MonitorSocket(const MonitorSocket &) = delete;
    int fd() const { return fd_.get(); }
    bool receive(Copy &copy); // false when nothing waits
    // Sends a command to the module that the copy came from. False when its socket does not take it.
    bool command(const Copy &copy, tav_ipc_monitor_command command, uint32_t value) const;
    bool command_was_read() const; // by the module: there is none left on its way

  private:
    std::string path_, buffer_;
    UniqueFd fd_;
};
void catch_monitor_interrupts(); // as catch_interrupts; what ends the process at once removes the files, too
void wait_for_copies(const std::deque<MonitorSocket> &sockets); // at most 0.1 s

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
// wait, and, as incomplete, when nothing more was heard of it for a while or its place is needed.
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
// A pcapng file of link type 147 (USER0); docs/wire.md describes a packet. One interface for each socket.
class CaptureFile {
  public:
    CaptureFile(const std::string &path, const std::vector<std::string> &interfaces); // "-": standard output
    void add(const Copy &copy);
    void add_statistics(unsigned socket, uint64_t packets, uint64_t missed);
    void flush(); // throws Problem; when a pipe has no reader any more, standard output counts as failed

  private:
    void block(uint32_t type, const std::string &body);
    const std::string path_;
    UniqueFd owned_;
    std::string pending_; // bytes not yet written
};

} // namespace tavctl
