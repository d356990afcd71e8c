// The bridge of one location: its sockets, its endpoints, and what flows between them and the engine.
//
//   _proxy_ (at the hub _prx0 to _prx7) -> judge_outgoing -> outbox or plain message -> engine
//   engine -> judge_incoming -> deliveries or endpoint -> tav_ipc_send_raw -> local socket
//
// The two directions share nothing, so what came from the engine cannot go back there. While the engine is
// away, or has not confirmed as much as allowed, the sockets are not read: the sending modules' libraries
// hold their messages.
#pragma once

#include "settings.h"

namespace tavbridge {

// Runs the bridge until a signal ends it. Returns false, with the reason, when it cannot begin.
bool run_bridge(const Settings &settings, std::string &reason);

} // namespace tavbridge
