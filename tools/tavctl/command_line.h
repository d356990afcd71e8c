// The options of all commands, and which function each one runs.
#pragma once

namespace tavctl {

// Reads the command line and does what it says. Returns the exit status, or throws Problem.
int run_command_line(int argc, char **argv);

} // namespace tavctl
