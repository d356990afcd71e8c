#include "installation.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace fs = std::filesystem;

namespace tavipc::stage {

namespace {

void write_file(const fs::path &path, std::string_view text) {
    if (!(std::ofstream(path, std::ios::binary) << text).flush())
        throw std::runtime_error("cannot write " + path.string());
}

fs::path new_directory() {
    std::string path = "/var/tmp/tavipc-XXXXXX";
    if (!mkdtemp(path.data())) throw std::system_error(errno, std::generic_category(), path);
    return path;
}

} // namespace

Installation::Installation(const Setup &setup)
    : var_(new_directory()), root_(setup.root.empty() ? var_ : setup.root), location_(setup.location),
      janitor_("/bin/sh", {},
               {"-c", "trap '' INT TERM HUP; read line; rm -rf \"$@\"", "janitor", root_, var_}) {
    fs::create_directories(root_ / "bin");
    fs::create_directories(config());
    write_file(config() / "agent.ini", "[agent]\nlocation = " + std::to_string(location_) +
                                           "\ndeploy_type = " + fs::relative(var_, "/var").string() +
                                           "\nagent_type = linux\n" +
                                           (setup.agent_id ? "" : "cnapp = 1\nhostid = 4242\n"));
    // A manager is configured, at an address that no host has: it is not this machine.
    write_file(config() / "server.ini", "[config]\naddr = 192.0.2.1\n");
    write_file(config() / "server_port.ini", "[port]\nipc = 8083\n");
    // An agent id is made from a network interface. Without a route, below the heading, there is none to use.
    std::ifstream routes("/proc/net/route");
    routes.ignore(1000, '\n');
    if (setup.agent_id && routes.peek() == EOF) write_file(config() / "machineid", "****");
}

void Installation::allow(const std::vector<std::string> &names) const {
    const char *given = std::getenv("TAVIPC_SIGNING_KEY");
    const fs::path key = given ? given : TAVIPC_DEVELOPMENT_KEY;
    if (!fs::exists(key))
        throw std::runtime_error(
            "This build has a key of its own (TAVIPC_ALLOWLIST_KEY). Set TAVIPC_SIGNING_KEY to "
            "the file with its private half.");
    fs::remove(config() / "linux.json"); // the new list holds no other names
    std::vector<std::string> command = {TAVIPC_TAVCTL, "allowlist", "add", "--key", key, "--dir", config()};
    command.insert(command.end(), names.begin(), names.end());
    if (const Outcome outcome = run(command); outcome.status != 0)
        throw std::runtime_error("tavctl allowlist add: " + outcome.errors);
}

// The allow-list names executables, so each module needs a file and not a symbolic link.
fs::path Installation::put(const std::string &name, const fs::path &program) const {
    std::error_code error;
    fs::path target = root_ / "bin" / name;
    if (fs::exists(target)) return target;
    fs::create_hard_link(program, target, error);
    if (error) fs::copy_file(program, target);
    return target;
}

std::string Installation::tool() const { return put("tavctl", TAVIPC_TAVCTL); }

Process Installation::start(const std::string &name, const std::vector<std::string> &environment,
                            const std::vector<std::string> &arguments) const {
    return Process(put(name, TAVIPC_MODULE), environment, arguments);
}

fs::path Installation::sockets() const { return var_ / ("zon_ipc" + std::to_string(location_)); }

} // namespace tavipc::stage
