// Payloads: made from the command line, and shown.
#pragma once

#include <string>
#include <string_view>

#include "cli/args.h"
#include "cli/console.h"

namespace tavctl {

// The payload that the options describe, with the header of an application message where one is asked for.
// Throws Problem.
std::string make_payload(const Args &args);
uint8_t address_flags(const Args &args); // of the destination

// Reads hexadecimal text ("00 ff", "00FF", "0x00ff"); throws misuse.
std::string parse_hex(std::string_view text);

// What compression would make of an application message: ", compressed to 120 bytes", or why it would not.
std::string compression_text(const std::string &payload);

// Adds size and text or hexadecimal digits to the record. Returns the same as lines for people, each after a
// line end.
std::string describe_payload(Record &record, std::string_view payload, const Args &args);
// Writes the bytes alone to standard output.
void write_raw(std::string_view payload);

} // namespace tavctl
