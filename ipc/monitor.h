// Copies of an endpoint's datagrams for monitors, and the commands of monitors. tav_ipc_monitor.h is the
// contract.
//
// Each endpoint looks for the four names of monitors when it is made and when its directory_watch reports a
// change. It has a link to each monitor that it accepts: a connection of its own, which the loop watches for
// commands and for the monitor's end. A copy is one sendmsg that never waits. Without a monitor in the
// process the cost is one relaxed load for each datagram.
//
// Nothing here reaches user code, except the line about a changed log level, which is the last thing that its
// frame does.
#pragma once

#include <atomic>
#include <cstdint>

#include "ipc/endpoint.h"
#include "tavipc/tav_ipc_monitor.h"

namespace tavipc {

// Prepares the endpoint for monitors. Best effort: without memory it has none.
void open_monitor_tap(tav_ipc_st *ipc) noexcept;
void close_monitor_tap(tav_ipc_st *ipc) noexcept;

// A datagram, whose header and payload may lie apart, and what became of it.
struct MonitoredDatagram {
    tav_ipc_monitor_event event;
    uint32_t reason; // enum tav_ipc_stats_value, or 0
    uint32_t tries;
    const void *header; // may be null if header_size is 0
    uint32_t header_size;
    const void *payload;
    uint32_t payload_size;
};

// Links to monitors in the process.
inline constinit std::atomic<uint32_t> monitor_links = 0;
inline bool is_monitored() noexcept { return monitor_links.load(std::memory_order_relaxed) > 0; }

void copy_to_monitors(const tav_ipc_st *ipc, const MonitoredDatagram &datagram) noexcept;

// Copies a datagram to the monitors of the endpoint, if there are any.
inline void monitor_parts(const tav_ipc_st *ipc, const MonitoredDatagram &datagram) noexcept {
    if (is_monitored()) [[unlikely]]
        copy_to_monitors(ipc, datagram);
}
// The same for one of size bytes in one piece.
inline void monitor_datagram(const tav_ipc_st *ipc, tav_ipc_monitor_event event, const void *datagram,
                             uint32_t size, uint32_t reason = 0, uint32_t tries = 0) noexcept {
    const uint32_t header = size < sizeof(tav_ipc_hdr_st) ? size : uint32_t{sizeof(tav_ipc_hdr_st)};
    const auto *payload = datagram ? static_cast<const unsigned char *>(datagram) + header : nullptr;
    monitor_parts(ipc, {event, reason, tries, datagram, header, payload, size - header});
}

} // namespace tavipc
