// Tells the service manager about the state of the service, as sd_notify(3) does. Does nothing without one.
#pragma once

namespace tavbridge {

void notify(const char *state) noexcept;

} // namespace tavbridge
