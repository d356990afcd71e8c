// The VM id that the guest tool reports, and the agent id made from it.
//
// g_vmid keeps the first id that was requested with use_global for the life of the process. Storing an agent
// id made from a VM id writes a machineid of 4 bytes. A longer file holds an id made from a MAC address,
// which is kept. All functions are public (tav_agentid.h).
#pragma once

#include "tavipc/tav_agentid.h"
