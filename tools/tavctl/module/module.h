// The tool as a module: its endpoint, its event loop, its exchanges, the library's log, and why one fails.
#pragma once

#include <functional>
#include <limits>

#include "cli/cli.h"
#include "tavipc/tav_ipc.h"
#include "tavipc/tav_ipc_ext.h"

namespace tavctl {

// --- the event loop (loop.cpp)
// From now on a first Ctrl-C, SIGTERM or SIGHUP ends a wait instead of the process, so that statistics are
// printed and socket files are removed. A second one ends the process, after last_act in the signal handler.
void catch_interrupts(void (*last_act)() = nullptr);
bool interrupted();

// Runs the loop until done() holds, which is called after each turn. False when the time was over first, or
// when interrupted.
bool run_until(const std::function<bool()> &done, double limit_s = std::numeric_limits<double>::infinity());
void pause(double seconds); // runs the loop for this time, unless interrupted
// For tav_ipc_flush: a command that ends waits this long for a receiver that does not read.
inline constexpr int kLastFlush_ms = 1000;
double now_seconds(); // monotonic

// --- the library's log, kept instead of written (loop.cpp)
// verbose: each line is also written to standard error, at the level of TAV_LOG_LEVEL (4 when it is not set).
void keep_log(bool verbose);
// The newest line of level 2 or less since the last call, after ": "; empty without one.
std::string take_reason();

// --- addresses
// Reads NAME or NAME@LOCATION; throws misuse. Location 0 is this machine's own.
tav_addr_st parse_address(const std::string &text, uint8_t flags = 0);
// The address as it is given on the command line; "?" stands for bytes that no name should have.
std::string address_text(const tav_addr_st &address);
std::string configuration_directory(); // as the library finds it

// --- endpoints and exchanges
// An endpoint of the tool, with a name of its own unless one is given. Throws Problem with the reason and the
// remedy when the library refuses it, or would have to make an agent id for it.
class Module {
  public:
    explicit Module(const std::string &name = {}, bool accept_files = false);
    ~Module() { close(); }
    Module(const Module &) = delete;
    // Closes the endpoint early, from a callback too.
    void close() { tav_ipc_destroy(std::exchange(ipc_, nullptr)); }
    operator tav_ipc_st *() const { return ipc_; }
    std::string text() const { return address_text(*tav_ipc_get_local_addr(ipc_)); }

  private:
    tav_ipc_st *ipc_;
};

// How a request, confirmed message or probe ended.
struct Answer {
    bool ended = false; // false: interrupted before
    int32_t code = 0;   // of the library
    uint32_t cmd = 0;   // of a response, and its payload
    std::string payload;
    double took_s = 0;
};
inline constexpr double kProbeTimeout_s = 5; // as tav_ipc_probe
// kind: of tav_ipc_exchange_start. Throws Problem when the library refuses it.
Answer exchange(const Module &module, int kind, const tav_addr_st &destination, double timeout_s,
                uint32_t cmd = 0, std::string_view payload = {});

// Why no endpoint answers at the address, as far as its socket file shows: a Problem with kNoAnswer.
Problem silence(const tav_addr_st &address, const std::string &begin = "no answer from ");
// Why an exchange ended with a code other than 0.
Problem failed_exchange(const tav_addr_st &address, int code);

// --- payloads: made from the command line, and shown
// The payload that the options describe, with the header of an application message if they ask for one.
std::string make_payload(const Args &args);
uint8_t address_flags(const Args &args); // of the destination

// Reads hexadecimal text ("00 ff", "00FF", "0x00ff"); throws misuse.
std::string parse_hex(std::string_view text);

// Adds size and text or hexadecimal digits to the record. Returns the same as lines for people, each after a
// line end.
std::string describe_payload(Record &record, std::string_view payload, const Args &args);

uint64_t accepted_bytes(const Module &module); // of all payloads that the library accepted, without headers
// Runs the loop until all that was sent has left. Throws Problem when some of it was dropped, and when the
// wait was interrupted.
void wait_until_left(const Module &module, const tav_addr_st &destination);

} // namespace tavctl
