// tavctl list --all: the endpoints of other locations that the bridge of this one has heard. The bridge
// answers the command code 2 with a line for each: name, location, host id, seconds since then.
#include <sstream>

#include "look/sockets.h"
#include "module/module.h"

namespace tavctl {
namespace {

constexpr const char *kBridge = "tavbridge";
constexpr uint32_t kTellHeard = 2;
constexpr int32_t kPatience_s = 3;

struct Lines {
    bool ended = false;
    int32_t code = 0;
    std::string text;
    static int take(int32_t code, uint32_t, const void *data, uint32_t size, void *lines) {
        auto &self = *static_cast<Lines *>(lines);
        self.ended = true;
        self.code = code;
        if (code == 0) self.text.assign(static_cast<const char *>(data), size);
        return 0;
    }
};

} // namespace

int tell_heard(Console &out) {
    Lines lines; // outlives the endpoint
    const tav_addr_st bridge = parse_address(kBridge);
    catch_interrupts();
    const Module module;
    tav_ipc_make_request(module, &bridge, kTellHeard, nullptr, 0, Lines::take, &lines, kPatience_s);
    if (run_until([&] { return lines.ended; }) == Wait::kInterrupted) return kFailure;
    if (lines.code != 0) throw failed_exchange(bridge, lines.code);
    std::istringstream rows(lines.text);
    std::string name;
    unsigned location = 0, hostid = 0, age_s = 0;
    out.tell("\nOther locations, as the bridge has heard them:");
    while (rows >> name >> location >> hostid >> age_s)
        out.say(Record("name", one_line(name), "location", location, "hostid", hostid, "state", "heard",
                       "age_s", age_s),
                "{name}@{location}  on machine {hostid}, {age_s} s ago");
    return kSuccess;
}

} // namespace tavctl
