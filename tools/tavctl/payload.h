// Payloads: made from the command line, and shown.
#pragma once

#include <string>
#include <string_view>

#include "commands.h"
#include "tavipc/tav_ipc.h"

namespace tavctl {

// Hexadecimal text ("00 ff", "00FF", "0x00ff") as bytes; throws misuse.
std::string parse_hex(std::string_view text);

// The payload that the options describe, with the header of an application message where one is asked for.
// Throws.
std::string make_payload(const PayloadOptions &options);
// Flags for the destination's address.
uint8_t address_flags(const PayloadOptions &options);
// What compression would make of an application message: " (compressed to 120 B)", or why it would not.
std::string compression_text(const std::string &payload);

struct Shown {
    bool hex = false, raw = false;
    size_t max_bytes = 256;
};
// Adds size and text or hexadecimal digits to the record, and gives the same as lines for people (without a
// head).
std::string describe_payload(Record &record, std::string_view payload, const Shown &shown);
// The bytes alone, to standard output.
void write_raw(std::string_view payload);

} // namespace tavctl
