// Records that the library cannot work without: when memory is short for one of them the process ends, in
// good order, so that its supervisor starts it again.
#pragma once

#include <cstdlib>

#include "common/log.h"

namespace tavipc {

[[noreturn]] inline void out_of_memory(const char *source, int line) {
    if (error_output_check(0)) error_output(0, source, line, "Out of memory\n");
    std::exit(0);
}

} // namespace tavipc
