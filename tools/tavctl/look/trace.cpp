// tavctl trace: the switch of the message trace, and what its lines mean.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/problem.h"
#include "cli/text.h"
#include "commands.h"
#include "common/facts.h"
#include "common/unique_fd.h"

namespace tavctl {
namespace {

using tavipc::kTraceSwitch;

constexpr char kLegend[] = R"(
With TAV_LOG_LEVEL=4 in its environment a module writes a line for each message
that it sends or gets:

  [MSG TRACE] [alpha@42:2:80]->[beta@42:2:0], reqid:7, flags:0x200, rflags: 0x0,
  frag:1:300:4, cmd: 9, size: 64000(200000), send via dunix: beta

  [alpha@42:2:80]       source: name, host id, location, address flags (hex)
  ->[beta@42:2:0]       destination, in the same form
  reqid:7               id of the message, or of the request that it answers
  flags:0x200           1 ACK, 2 NEED_ACK, 4 FILE, 8 PROBE, 10 REQUEST, 20 RESPONSE,
                        40 TRACE, 100 COMPRESSED, 200 APP_MSG
  frag:1:300:4          a fragment: 1, its set 300, its number 4
  cmd: 9                command code
  size: 64000(200000)   payload bytes here, and in parentheses of the whole message
  send via dunix: beta  what happens to it: here it is sent to the socket beta

"[Invalid message header]" means that the check value of a header is wrong.

While the switch file exists every message is traced. Without it only messages
with TRACE are, which a sender with IPC_TEST=1 in its environment sets. Modules
check for the file every ten seconds.)";

int show(Console &out) {
    struct stat file {};
    Record record("switch", kTraceSwitch);
    if (lstat(kTraceSwitch, &file) == 0) {
        const Stamp since(file.st_mtime);
        record.add("on", true, "since", since, "uid", file.st_uid);
        out.say(record, "{switch}: ON since " + since.format("%Y-%m-%d %H:%M:%S") + ", made by user {uid}");
    } else {
        out.say(record.add("on", false), "{switch}: off");
    }
    out.tell(kLegend);
    return kSuccess;
}

int switch_on(Console &out) {
    // Anybody may write to /tmp: an existing file is left as it is, and a link is not followed.
    const tavipc::UniqueFd file(
        open(kTraceSwitch, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file && errno != EEXIST)
        throw system_problem(std::string("cannot make ") + kTraceSwitch, "may this user write to /tmp?");
    out.say(Record("switch", kTraceSwitch, "on", true), file ? "{switch}: ON" : "{switch}: was on already",
            "; modules with TAV_LOG_LEVEL=4 trace every message within ten seconds");
    return kSuccess;
}

int switch_off(Console &out) {
    const bool was_on = unlink(kTraceSwitch) == 0;
    if (!was_on && errno != ENOENT)
        throw system_problem(std::string("cannot remove ") + kTraceSwitch,
                             "it belongs to another user: run tavctl as that user, or as root");
    out.say(Record("switch", kTraceSwitch, "on", false),
            was_on ? "{switch}: off; modules notice within ten seconds" : "{switch}: was off already");
    return kSuccess;
}

} // namespace

int trace(Console &out, const Args &args) {
    const std::string action = args.text("ACTION");
    if (action == "show") return show(out);
    if (action != "on" && action != "off") throw misuse("\"" + action + "\" is not one of on, off and show");
    return action == "on" ? switch_on(out) : switch_off(out);
}

} // namespace tavctl
