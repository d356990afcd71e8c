#include <charconv>

#include "agent/agent.h"
#include "common/facts.h"
#include "look/sockets.h"
#include "module/module.h"
#include "tavaux.h"
#include "tavipc/tav_agentid.h"

namespace tavctl {
namespace {

std::string name_text(const tav_addr_st &address) {
    return std::string(address.name, strnlen(address.name, sizeof address.name));
}

Problem refusal(const std::string &name) {
    if (const Verdict verdict = judge_executable("/proc/self/exe"); !verdict.allowed)
        return Problem("tavctl may not open an endpoint: " + verdict.reason, verdict.remedy, kNotAllowed);
    const std::string path = socket_directory(tav_get_location()) + "/" + name;
    if (probe_socket(path) == SocketState::kLive)
        return Problem("the endpoint name " + name + " is in use: " + path,
                       "give another name (tavctl list shows those taken)");
    return Problem("cannot open the endpoint " + name + " at " + path + take_reason(),
                   "tavctl doctor examines the directory and the identity");
}

// Refuses a name under which the library would not open an endpoint.
void check_may_open(const std::string &name) {
    parse_address(name); // refuses what is not a name
    if (name.find('@') != std::string::npos)
        throw misuse("\"" + name + "\": the tool's own endpoint has no location");
    if (c_get_process() != 0) throw refusal(name);
    // The library would make an id and store it: only tavctl id --create does that.
    const std::string path = configuration_directory() + "/machineid";
    if (!IsCNAPPAgent() && ReadAgentid(path.c_str()) == 0)
        throw Problem("there is no agent id in " + path + " yet",
                      "start a module of the agent, or make one: tavctl id --create");
}

} // namespace

tav_addr_st parse_address(const std::string &text, uint8_t flags) {
    const size_t at = text.find('@');
    const std::string name = text.substr(0, at);
    tav_addr_st address{};
    if (name.empty() || name.size() > TAV_IPC_NAME_MAX || name.find('/') != std::string::npos ||
        name == "." || name == "..")
        throw misuse("\"" + text + "\" is not an endpoint: a name has 1 to 9 characters and no \"/\"",
                     "tavctl list shows the endpoints of this machine");
    std::memcpy(address.name, name.data(), name.size());
    if (at != std::string::npos) {
        const long location = number_of(text.substr(at + 1));
        if (location < 0 || location > 255)
            throw misuse("\"" + text + "\": a location is a number from 0 to 255");
        address.loc = static_cast<uint8_t>(location);
    }
    address.flags = flags;
    return address;
}

std::string address_text(const tav_addr_st &address) {
    return harmless(name_text(address)) + (address.loc != 0 ? "@" + std::to_string(address.loc) : "");
}

std::string socket_directory(int location) {
    const char *type = GetDeployTypeStr();
    return tavipc::kSocketRoot + (type ? std::string(type) + "/" : "") + tavipc::kSocketDirectory +
           std::to_string(location);
}

std::string configuration_directory() {
    char directory[1024] = "";
    GetTAVConfPath(directory, sizeof directory);
    return directory;
}

Module::Module(const std::string &name, bool accept_files) {
    char digits[16] = ""; // of the process id in base 36: the name has at most 9 characters
    std::to_chars(digits, std::end(digits), getpid(), 36);
    const std::string used = name.empty() ? std::string("ctl") + digits : name;
    check_may_open(used);
    take_reason();
    may_end_process([&] { ipc_ = tav_ipc_create_temp(used.c_str(), accept_files); });
    if (!ipc_) throw refusal(used);
}

int Exchange::on_status(int32_t code, void *exchange) {
    auto &self = *static_cast<Exchange *>(exchange);
    self.ended = true;
    self.code = code;
    self.end = now_seconds();
    return 0;
}

Problem silence(const tav_addr_st &address) {
    const int own = tav_get_location(), location = address.loc != 0 ? address.loc : own;
    const std::string path = socket_directory(location) + "/" + name_text(address);
    const std::string silent = "no answer from " + address_text(address);
    if (location != own)
        return Problem(
            silent, "messages for another location go through its proxy endpoint: does it run? tavctl list",
            kNoAnswer);
    const std::pair<std::string, std::string> reasons[] = {
        // by SocketState
        {": there is no socket " + path, "start the module, or see which endpoints there are: tavctl list"},
        {", although its socket is open",
         "its process is busy or stopped, or its application does not answer: tavctl probe " +
             name_text(address) + " asks the library in it; tavctl list shows its process"},
        {": the socket " + path + " is stale, its process is gone",
         "start the module again; tavctl list --clean removes the file"},
        {": " + path + " may not be written by this user",
         "run tavctl as the user of the module, or as root"},
        {": " + path + " is not a socket", "see whose it is, and move it away"}};
    const auto &[reason, remedy] = reasons[static_cast<size_t>(probe_socket(path))];
    return Problem(silent + reason, remedy, kNoAnswer);
}

Problem failed_exchange(const tav_addr_st &address, int code) {
    if (code == IPC_ERR_TIMEOUT) return silence(address);
    const std::string reason = take_reason();
    return Problem(address_text(address) + ": " + tav_ipc_strerror(code) + " (" + std::to_string(code) + ")",
                   reason.empty() ? "tavctl --verbose shows the library's log" : reason.substr(2));
}

} // namespace tavctl
