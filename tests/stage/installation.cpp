#include "installation.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tavipc::stage {

namespace {

void write_file(const fs::path &path, std::string_view text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

// Whether an agent id can be made from a MAC address here: an interface with an address, not the loopback.
bool has_network_interface() {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list)) return false;
    bool found = false;
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next)
        found |=
            entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET && !(entry->ifa_flags & IFF_LOOPBACK);
    freeifaddrs(list);
    return found;
}

// A process that removes both directories as soon as this one ends, in whatever way.
pid_t start_janitor(int pipe_end, int other_end, const fs::path &root, const fs::path &var) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_IGN);
    close(other_end);
    for (char byte; read(pipe_end, &byte, 1) < 0 && errno == EINTR;) {
    }
    std::error_code ignored;
    fs::remove_all(root, ignored);
    fs::remove_all(var, ignored);
    _exit(0);
}

// The gate looks at the name of the executable, so each module needs a file, not a link that resolves.
void put_executable(const char *from, const fs::path &to) {
    std::error_code error;
    if (fs::exists(to)) return;
    fs::create_hard_link(from, to, error);
    if (error) fs::copy_file(from, to);
}

std::string agent_ini(const Installation::Setup &setup, const std::string &deploy_type) {
    return "[agent]\nlocation = " + std::to_string(setup.location) + "\ndeploy_type = " + deploy_type +
           "\nagent_type = linux\n" + (setup.agent_id ? "" : "cnapp = 1\nhostid = 4242\n");
}

} // namespace

Installation::Installation(const Setup &setup) : root_(setup.root), location_(setup.location) {
    std::string var = "/var/tmp/tavipc-XXXXXX";
    if (!mkdtemp(var.data())) throw std::system_error(errno, std::generic_category(), var);
    var_ = var;
    if (root_.empty()) root_ = var_;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC)) throw std::system_error(errno, std::generic_category(), "pipe");
    janitor_ = start_janitor(ends[0], ends[1], root_, var_);
    close(ends[0]);
    janitor_pipe_ = ends[1];

    fs::create_directories(root_ / "bin");
    fs::create_directories(config());
    write_file(config() / "agent.ini", agent_ini(setup, fs::relative(var_, "/var")));
    // An address that no host answers at: the manager is configured, and not this machine.
    write_file(config() / "server.ini", "[config]\naddr = 192.0.2.1\n");
    write_file(config() / "server_port.ini", "[port]\nipc = 8083\n");
    const uint32_t stored_id = 0x2A2A2A2A;
    if (setup.agent_id && !has_network_interface())
        write_file(config() / "machineid", {reinterpret_cast<const char *>(&stored_id), sizeof stored_id});
}

Installation::~Installation() {
    close(janitor_pipe_);
    if (janitor_ > 0) waitpid(janitor_, nullptr, 0);
}

void Installation::allow(const std::vector<std::string> &names) const {
    const char *given = std::getenv("TAVIPC_SIGNING_KEY");
    const fs::path key = given ? given : TAVIPC_DEVELOPMENT_KEY;
    if (!fs::exists(key))
        throw std::runtime_error("no private key to sign the list with: this build has a key of its own in "
                                 "TAVIPC_ALLOWLIST_KEY, set TAVIPC_SIGNING_KEY to its private half");
    fs::remove(config() / "linux.json"); // the list holds these names and no others
    std::vector<std::string> command = {TAVIPC_TAVCTL, "allowlist", "add"};
    command.insert(command.end(), {"--key", key, "--dir", config()});
    command.insert(command.end(), names.begin(), names.end());
    if (const Outcome outcome = run(command); outcome.status != 0)
        throw std::runtime_error("tavctl allowlist add: " + outcome.errors);
}

std::string Installation::tool() const {
    put_executable(TAVIPC_TAVCTL, root_ / "bin" / "tavctl");
    return root_ / "bin" / "tavctl";
}

Process Installation::start(const std::string &name, const std::vector<std::string> &environment) const {
    const fs::path program = root_ / "bin" / name;
    put_executable(TAVIPC_MODULE, program);
    return Process(program, environment);
}

fs::path Installation::sockets() const { return var_ / ("zon_ipc" + std::to_string(location_)); }

} // namespace tavipc::stage
