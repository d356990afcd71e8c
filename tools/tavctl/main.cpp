// tavctl - a module for people: looks at endpoints, talks to them, keeps the allow-list. This file is the
// start; the options stand in command_line.cpp, each command lies in a file of its own (commands.h).
#include <csignal>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

#include "command_line.h"
#include "console.h"
#include "problem.h"

int main(int argc, char **argv) {
    using namespace tavctl;
    for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) // for each standard descriptor that is closed
        if (fd > STDERR_FILENO) {
            close(fd);
            break;
        }
    std::signal(SIGPIPE,
                SIG_IGN); // a reader that has gone shows in the output, and the endpoint is closed in order
    try {
        return run_command_line(argc, argv);
    } catch (const Problem &problem) {
        std::cout.flush();
        std::cerr << "tavctl: " << harmless(problem.what()) << std::endl;
        if (!problem.remedy().empty())
            std::cerr << "  what to do: " << harmless(problem.remedy()) << std::endl;
        return problem.status();
    } catch (const std::exception &error) {
        std::cout.flush();
        std::cerr << "tavctl: " << error.what() << std::endl;
        return kFailure;
    }
}
