// From a caller's message to datagrams: marks and compresses application messages, chooses the pipe, numbers
// the message, keeps the destination's in-flight limit and cuts large messages into fragments.
#pragma once

#include <cstdint>

#include "ipc/endpoint.h"

namespace tavipc {

// A message to one destination. data may be null: the payload is then zeros.
struct Message {
    tav_addr_st dest;
    uint32_t cmd;
    const void *data;
    uint32_t size; // bytes of payload
    uint16_t flags;
};

// What tav_ipc_send_with_flags does for a handle and a destination that are not null. It changes the message.
[[nodiscard]] int send_message(tav_ipc_st *ipc, Message &&message, uint32_t *reqid);

// Marks every message that the process sends from now on with IPC_FLAG_TRACE.
void trace_sent_messages();

// The message id that the process drew last; 0: none yet.
uint32_t last_reqid();

// For tests: ids count from the given one again, and messages are not marked.
void reset_sending(uint32_t last_id = 0);

} // namespace tavipc
