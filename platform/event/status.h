// Results of sends and receptions: from errno, and as text.
#pragma once

namespace tavcl_ev {

// The status for the errno of a failed system call; CL_EV_OK for 0.
int status_of(int error) noexcept;
const char *status_text(int status) noexcept;

} // namespace tavcl_ev
