// tavctl list --all: the endpoints of other locations from which the bridge of this one has had messages.
#include <sstream>

#include "common/facts.h"
#include "look/sockets.h"
#include "module/module.h"

namespace tavctl {
namespace {

constexpr double kPatience_s = 3; // the bridge is on this machine and answers in milliseconds

} // namespace

int tell_heard(Console &out) {
    const tav_addr_st bridge = parse_address(tavipc::kBridgeEndpoint);
    catch_interrupts();
    const Module module;
    const Answer answer =
        exchange(module, TAV_IPC_EXCHANGE_REQUEST, bridge, kPatience_s, tavipc::kBridgeHeard);
    if (!answer.ended) return kFailure;
    if (answer.code != 0) throw failed_exchange(bridge, answer.code);
    std::istringstream rows(answer.payload);
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
