// The tool as a module: its own endpoint, its loop, and why it may not have one.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "console.h"
#include "problem.h"
#include "tavipc/tav_ipc.h"

namespace tavctl {

using namespace std::chrono_literals;
using Milliseconds = std::chrono::milliseconds;

// NAME or NAME@LOCATION; throws misuse. Location 0: this machine's own.
tav_addr_st parse_address(const std::string &text, uint8_t flags = 0);
// As it is given on the command line; bytes that no name should have are shown as "?".
std::string address_text(const tav_addr_st &address);

// --- the library's log: kept instead of written, so that a command can say what it means. verbose: each line
// is also written to standard error, at the level of TAV_LOG_LEVEL (4 when that is not set).
void keep_log(bool verbose);
std::vector<std::string> take_log(); // the lines since the last call, oldest first
// From watch_retries on counts the attempts to send that failed and are to be repeated.
void watch_retries();
uint64_t retries_logged();

// The library ends the process when it must have an agent id and cannot: while an object of this lives,
// whoever waits for the tool is told why.
class MayEndProcess {
  public:
    MayEndProcess();
    ~MayEndProcess();
    MayEndProcess(const MayEndProcess &) = delete;

  private:
    void (*before_)(int);
};

// An endpoint of the tool, with a name of its own unless one is given. Throws Problem with the reason and the
// remedy when the library refuses it.
class Module {
  public:
    enum Kind { kReceiving, kReceivingFiles };
    explicit Module(Kind kind, const std::string &name = {});
    ~Module() { tav_ipc_destroy(ipc_); }
    Module(const Module &) = delete;
    Module &operator=(const Module &) = delete;
    // Closes the endpoint before its time, from a callback too.
    void close() { tav_ipc_destroy(std::exchange(ipc_, nullptr)); }
    operator tav_ipc_st *() const { return ipc_; }
    std::string text() const { return address_text(*tav_ipc_get_local_addr(ipc_)); }

  private:
    tav_ipc_st *ipc_;
};

// Ctrl-C and SIGTERM end a wait instead of the tool, so that statistics are printed and socket files removed.
void catch_interrupts();
bool interrupted();

enum class Wait { kDone, kTimeout, kInterrupted, kNothingLeft };
// Runs the loop until done() or for so long; done is asked after each turn.
Wait run_until(const std::function<bool()> &done, std::optional<Milliseconds> limit = {});

// Runs the loop for so long, unless interrupted.
void pause(double seconds);

// Why nobody answers at the address, as far as its socket file tells, and what to do: a Problem with
// kNoAnswer.
Problem silence(const tav_addr_st &address);
// For an exchange that ended with a code other than 0.
Problem failed_exchange(const tav_addr_st &address, int code);

// Directory of the socket files of a location, as the library composes it.
std::string socket_directory(int location);

double now_seconds(); // monotonic

} // namespace tavctl
