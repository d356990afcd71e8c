// tavctl id: the identity of this agent, as its files show it. Only --create stores one.
#include <csignal>
#include <cstdlib>

#include "agent/agent.h"
#include "commands.h"
#include "module/module.h"
#include "tavaux.h"
#include "tavbase.h"
#include "tavipc/tav_agentid.h"

namespace tavctl {
namespace {

constexpr size_t kMac = 6; // bytes

std::string mac_text(std::string_view bytes) {
    std::string text;
    for (size_t i = 0; i < kMac && i < bytes.size(); ++i) text += (i ? ":" : "") + hex_of(bytes.substr(i, 1));
    return text;
}

// The contents of the file machineid.
struct Stored {
    unsigned id = 0;
    std::string manager_mac, text = "there is none";
    std::vector<std::string> macs;
};

Stored read_stored(const std::string &path) {
    Stored stored;
    if (access(path.c_str(), F_OK) != 0) return stored;
    std::string bytes;
    try {
        bytes = read_regular_file(path, 65536);
    } catch (const Problem &problem) {
        return {0, {}, problem.what(), {}};
    }
    stored.id = ReadAgentid(path.c_str());
    stored.text = std::to_string(stored.id);
    std::string_view macs = bytes;
    if (bytes.size() < sizeof stored.id) {
        stored.text = "too short: " + std::to_string(bytes.size()) + " bytes";
    } else if (macs.remove_prefix(sizeof stored.id); macs.empty()) {
        stored.text += ", without addresses: made from a VM id, or stored by a program";
    } else {
        stored.manager_mac = mac_text(macs);
        stored.text +=
            ", made from MAC addresses: " + stored.manager_mac + " towards the manager; of this host";
        for (size_t at = kMac; at + kMac <= macs.size(); at += kMac) {
            stored.macs.push_back(mac_text(macs.substr(at)));
            stored.text += " " + stored.macs.back();
        }
        if (stored.macs.empty()) stored.text += " none";
    }
    return stored;
}

bool has_value(const std::string &path, const char *section, const char *key) {
    const std::unique_ptr<ini_file_t, Releaser<ini_file_free>> file(ini_file_load(path.c_str()));
    const char *value = file ? ini_file_get(file.get(), section, key) : nullptr;
    return value && *value;
}

bool determining = false;
void explain_end() {
    if (std::exchange(determining, false))
        std::cerr << "tavctl: the library ended the process while it determined the agent id" << take_reason()
                  << "\n  what to do: tavctl doctor" << std::endl;
}

// When the library cannot determine an id, it may end the process, with exit or abort.
void make_identity() {
    if (IsCNAPPAgent()) return;
    std::atexit(explain_end);
    std::signal(SIGABRT, [](int) { explain_end(), _exit(kFailure); });
    determining = true;
    const int result = CreateAgentId();
    determining = false;
    std::signal(SIGABRT, SIG_DFL);
    if (result == 0) return;
    throw Problem("no agent id could be determined" + take_reason(),
                  "run tavctl doctor; a lock that a dead process held is free at the next try");
}

} // namespace

std::string how_found(const std::string &directory) {
    const char *root = std::getenv("TAV_INSTALL_ROOT");
    if (root && directory == std::string(root) + "/config") return "from TAV_INSTALL_ROOT";
    char beside[1024] = "";
    dirutils_path_transform("@/../config", beside, sizeof beside);
    if (directory == beside)
        return access(beside, F_OK) == 0 ? "beside the directory of this executable"
                                         : "expected beside the directory of this executable, and MISSING";
    return "beside the first \"bin\" in the path of this executable";
}

Manager::Manager() {
    const std::string directory = configuration_directory();
    named = has_value(directory + "/server.ini", "config", "addr");
    port_given = has_value(directory + "/server_port.ini", "port", "ipc");
    std::array<char, 64> ip{};
    const int error = GetMgrAddr(ip.data(), static_cast<int>(ip.size()), &port);
    if (error == 0 && named && port_given) {
        address = ip.data();
        text = address + ", port " + std::to_string(port);
        return;
    }
    std::string missing = named ? "" : "server.ini has no [config] addr";
    if (!port_given) missing += std::string(named ? "" : ", ") + "server_port.ini has no [port] ipc";
    text = "none: " + (missing.empty() ? "the address in server.ini cannot be resolved" : missing);
}

int show_identity(Console &out, const Args &args) {
    const std::string directory = configuration_directory(), path = directory + "/machineid";
    if (args.has("create")) make_identity();
    const Stored stored = read_stored(path);
    const Manager manager;
    const bool platform = IsCNAPPAgent() != 0;
    const unsigned id = platform ? get_hostid() : stored.id;
    const char *type = GetDeployTypeStr(), *location_name = tav_location_name(tav_get_location());
    Record record("agent_id", id, "source", platform ? "platform" : stored.id ? "machineid" : "none");
    record.add("machineid", path, "stored", stored.id, "manager_mac", stored.manager_mac, "macs",
               stored.macs);
    record.add("config", directory, "found", how_found(directory));
    record.add("manager", manager.address, "manager_port", manager.port);
    record.add("location", tav_get_location(), "deploy_type", type ? type : "");
    const char *source = platform ? ", from the platform (agent.ini: cnapp, hostid)"
                         : id     ? ", stored in machineid"
                                  : "";
    out.say(record, "agent id       ",
            (id ? std::to_string(id) : "none") + source + record.fill("\nmachineid      {machineid}: ") +
                stored.text + record.fill("\nconfiguration  {config}, {found}\nmanager        ") +
                manager.text + record.fill("\nsockets        location {location} (") + location_name +
                "), deployment type " + (type ? type : "none"));
    if (id != 0) return kSuccess;
    out.tell_remedy("start a module of the agent, or make an id: tavctl id --create");
    return kFailure;
}

} // namespace tavctl
