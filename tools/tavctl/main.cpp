// tavctl - a module for people: looks at endpoints, talks to them, keeps the allow-list. This file is the
// start; the options stand in command_line.cpp, each command lies in a file of its own (commands.h).
#include <iostream>

#include "command_line.h"
#include "console.h"
#include "problem.h"

int main(int argc, char **argv) {
    using namespace tavctl;
    try {
        return run_command_line(argc, argv);
    } catch (const Problem &problem) {
        std::cout.flush();
        std::cerr << "tavctl: " << problem.what() << std::endl;
        if (!problem.remedy().empty()) std::cerr << "  what to do: " << problem.remedy() << std::endl;
        return problem.status();
    } catch (const std::exception &error) {
        std::cout.flush();
        std::cerr << "tavctl: " << error.what() << std::endl;
        return kFailure;
    }
}
