// The account of a soak run: what modules were asked to send, what they reported, when they did not run.
//
// A message that was accepted is delivered once and unchanged, or one of these explains it:
//
// - dropped: a log line of its sender names it;
// - cut off: a side was killed or closed before both had run for kUnderWay together since it left;
// - shared id: its fragments may have met those of another under the same number, which is drawn from the
//   clock in milliseconds, and the receiver does not look at who sent them;
// - expired: it was in fragments, and a side stood still for about the 10 s after which they are dropped.
//
// An exchange runs its callback once, with 0 when the peer got it; a time-out needs one of the first two, or
// a side that did not run. A module that was started anew draws its ids from 1 again: a late answer to the
// one before may complete its exchange of the same id.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tavipc::soak {

inline constexpr size_t kModules = 10;
inline constexpr uint32_t kLargestDatagram = 64'000;

double now(); // seconds of the monotonic clock, the one that modules report

enum Kind : uint8_t { kMessage, kRequest, kConfirm, kProbe, kFile };
inline const char *const kKindNames[] = {"message", "request", "confirm", "probe", "file"};

struct Entry {
    Kind kind = kMessage;
    uint8_t from = 0, to = 0;
    bool compressed = false, posted = false, changed = false;
    uint16_t delivered = 0, completed = 0;
    int life = 0;     // of the sender
    int32_t code = 0; // of the callback, or what sending returned
    uint32_t size = 0;
    float patience = 0, took = 0; // its time-out, and the time until it was delivered, in seconds
    double begun = 0, ended = 0;  // the call
    uint64_t digest = 0, answer = 0;
};

// A time in which a module did not run. Whatever was under way until `gone` may have been cut off by it.
struct Gap {
    enum What { kStopped, kKilled, kClosed } what;
    double begin, gone = 1e18, end = 1e18;
};

class Ledger {
  public:
    std::vector<Entry> entries{1};      // by id; none has the id 0
    std::map<uint32_t, uint32_t> files; // size to id
    std::vector<Gap> gaps[kModules];

    // Takes a line of a module, other than those about files.
    void note(size_t index, const std::string &event);
    void note_file_began(uint32_t id, const std::string &digest);
    void note_file_got(size_t index, uint32_t size, const std::string &digest);
    void note_completion(Entry &entry, int32_t code, const std::string &answer);
    // Prints the verdicts. Whether everything is accounted for.
    bool report(double begun);

  private:
    struct Drop {
        uint8_t from, to;
        uint32_t size;
        double at; // when it was read
        bool used;
    };

    void note_posted(const std::vector<std::string> &w);
    void note_delivery(size_t index, const std::vector<std::string> &w);
    void note_log(size_t index, const std::string &event);

    bool ran_too_little(const Entry &entry, double limit) const;
    double away(const Entry &entry, double until) const;
    std::string cut_off(const Entry &entry) const;
    bool sender_ended(const Entry &entry, Gap::What what) const;
    bool follows_killed(const Entry &entry) const;
    bool shares_id(uint32_t id);
    bool find_drop(const Entry &entry);
    void show_gaps(const Entry &entry, double begun) const;
    std::string judge_message(uint32_t id);
    std::string judge_exchange(uint32_t id);

    std::set<uint32_t> dropped_; // messages
    std::vector<Drop> drops_;    // of anything else
    std::map<std::string, uint64_t> reasons_, other_lines_;
    std::map<std::pair<uint8_t, int>, std::vector<uint32_t>> by_fragment_id_; // receiver and number
    uint64_t bytes_ = 0, unknown_ = 0;
};

} // namespace tavipc::soak
