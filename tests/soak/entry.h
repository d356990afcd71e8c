// The account of the soak: one entry for each message, exchange or file, and the faults of modules.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tavipc::stage {

enum Kind { kMessage, kRequest, kConfirm, kProbe, kFile };
inline const std::string kKindNames[] = {"message", "request", "confirm", "probe", "file"};
enum Fault { kNone, kKilled, kStopped, kClosed };
inline const std::string kFaultNames[] = {"", " killed", " stopped", " closed"};

struct Entry {
    Kind kind;
    size_t from, to, round;
    uint32_t size;
    int delivered = 0, completed = 0, code = 0; // completed: the call returned, or the callback ran
    bool dropped = false, changed = false;
    std::string digest{}, answer{}; // the former as sent or as delivered, whichever is read first

    void compare(const std::string &other) {
        changed |= !digest.empty() && digest != other;
        digest = other;
    }
};

} // namespace tavipc::stage
