// tavctl - looks at the endpoints of an agent's modules, talks to them, and keeps the allow-list.
#include <csignal>

#include "commands.h"

namespace {

// Descriptors 0 to 2 must be open, or a file or socket of the library would take the place of one.
void open_standard_descriptors() {
    int fd;
    while ((fd = open("/dev/null", O_RDONLY)) >= 0 && fd <= STDERR_FILENO) continue;
    close(fd);
}

int complain(const char *what, const std::string &remedy, int status) {
    std::cout.flush();
    std::cerr << "tavctl: " << tavctl::harmless(what) << std::endl;
    if (!remedy.empty()) std::cerr << "  what to do: " << tavctl::harmless(remedy) << std::endl;
    return status;
}

} // namespace

int main(int argc, char **argv) {
    open_standard_descriptors();
    std::signal(SIGPIPE, SIG_IGN); // writing fails instead, and the endpoint is closed properly
    try {
        return tavctl::run_command_line(tavctl::commands(), {argv, static_cast<size_t>(argc)});
    } catch (const tavctl::Problem &problem) {
        return complain(problem.what(), problem.remedy(), problem.status());
    } catch (const std::exception &error) {
        return complain(error.what(), {}, tavctl::kFailure);
    }
}
