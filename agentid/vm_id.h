// The VM id, which the guest tool reports, and the agent id made from it.
//
// g_vmid keeps the first id that was asked for with use_global for the life of the process. An agent id made
// from a VM id leaves a 4-byte machineid; a longer file holds an id made from a MAC address, which is kept.
// Everything here is public (tav_agentid.h).
#pragma once

#include "tavipc/tav_agentid.h"
