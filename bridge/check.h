// What "tav-bridge --check" prints.
#pragma once

#include "settings.h"

namespace tavbridge {

// Prints what is wrong with the settings; then, whether the engine can be reached with them, and the state of
// the streams and consumers. Returns the exit status: 0 when everything is right.
int check(const Settings &settings, const Problems &problems, const Place &home);

} // namespace tavbridge
