// What nats.c reaches without bridges: the yardstick of the bridge's benchmark. Both functions print their
// result and return the exit status.
#pragma once

#include <cstddef>
#include <cstdint>

// The median round trip of requests, one after the other, between two connections.
int native_requests(const char *url, size_t count);

// The throughput of one publisher and one subscriber: messages of size bytes, each with a header's bytes
// more.
int native(const char *url, bool durable, size_t size, uint64_t count);
