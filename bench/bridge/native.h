// What nats.c reaches without bridges: the yardstick of the bridge's benchmark. Both functions print their
// result and return the exit status.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// The median round trip of requests, one after the other, between two connections.
int native_requests(const char *url, size_t count);

// The throughput of one publisher and one subscriber: messages of size bytes, each with a header's bytes
// more. kind: "core"; "durable", stored and acknowledged one by one; or "ids", also with a message id each,
// by which the server recognises what it is given twice. Only the last one gives what the bridge gives.
int native(const char *url, std::string_view kind, size_t size, uint64_t count);
