// Completion for bash, made from the options themselves.
#pragma once

#include <CLI/App.hpp>

namespace tavctl {

int print_bash_completion(const CLI::App &app);

} // namespace tavctl
