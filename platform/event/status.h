// Converts errno to the results of sends and receptions, and these to text.
#pragma once

namespace tavcl_ev {

// Returns the status for the errno of a failed system call, CL_EV_OK for 0.
int status_of(int error) noexcept;
const char *status_text(int status) noexcept;

} // namespace tavcl_ev
