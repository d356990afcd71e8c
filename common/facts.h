// Names and limits of the running system that the libraries, tavctl and tav-bridge share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavipc {

// Socket files lie in /var/zon_ipc<location>/, or with a deployment type in /var/<type>/zon_ipc<location>/.
inline constexpr char kSocketRoot[] = "/var/";
inline constexpr char kSocketDirectory[] = "zon_ipc";
inline constexpr size_t kLongestSocketPath = 107; // bytes: sun_path without its NUL

// Whoever replaces or removes a stale socket file locks its directory first. The lock is held for far less
// than the 200 ms after which a process stops waiting for it.
inline constexpr int kDirectoryLockTries = 200;
inline constexpr unsigned kDirectoryLockPause_us = 1000;

// An endpoint writes messages for other locations to the socket "_proxy_" of its own location. The endpoints
// of the hub's location write them to "_prx0" to "_prx7" instead.
inline constexpr uint8_t kHubLocation = 4;
inline constexpr int kHubPipes = 8;

// Bytes of send buffer asked for a socket: 65 fragments. The kernel grants twice this, or its limit.
inline constexpr int kSendBuffer = 4 << 20;

// Bytes: a shorter application message is not compressed, because the envelope would take what is gained.
inline constexpr uint32_t kCompressMinimum = 148;

inline constexpr char kReceivedFile[] = "/tmp/ipc_file.XXXXXX";   // for mkstemp
inline constexpr char kTraceSwitch[] = "/tmp/ipc_debug";          // traces every message while it exists
inline constexpr char kIdentityLock[] = "/tav_agentid_mutexlock"; // named semaphore, below /dev/shm/sem.

// tav-bridge answers requests of its own machine at this endpoint. The command code selects the answer.
inline constexpr char kBridgeEndpoint[] = "tavbridge";
enum BridgeCommand : uint32_t {
    kBridgeCounters = 1, // "NAME VALUE" lines
    kBridgeHeard = 2 // "NAME LOCATION HOSTID SECONDS" lines: endpoints of other locations, time since heard
};

} // namespace tavipc
