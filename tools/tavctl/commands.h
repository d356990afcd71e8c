// The commands and their options. main.cpp fills the options from the command line; each function does one
// command and returns the exit status, or throws Problem.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "console.h"

namespace tavctl {

// --- allowlist_commands.cpp
struct KeygenOptions {
    std::string private_path, public_path;
};
int allowlist_keygen(Console &out, const KeygenOptions &options);
struct ListOptions {
    std::string directory;          // empty: the configuration directory beside the tool
    std::string key;                // PEM; verify: empty is the key compiled into the library
    std::vector<std::string> names; // of executables
};
int allowlist_add(Console &out, const ListOptions &options);
int allowlist_remove(Console &out, const ListOptions &options);
int allowlist_sign(Console &out, const ListOptions &options);
int allowlist_verify(Console &out, const ListOptions &options);
struct WhyOptions {
    std::string process; // a path, a process id or the name of a module beside the tool
};
int allowlist_why(Console &out, const WhyOptions &options);

// --- identity.cpp
struct IdentityOptions {
    bool create = false; // determine and store one when there is none
};
int show_identity(Console &out, const IdentityOptions &options);

// --- probe.cpp
struct ProbeOptions {
    std::string destination;
    uint64_t count = 4; // 0: until interrupted
    double interval_s = 1;
};
int probe(Console &out, const ProbeOptions &options);

// --- messages.cpp
struct PayloadOptions {
    std::optional<std::string> data, file; // neither: standard input
    bool hex = false;                      // the data is hexadecimal text
    bool app = false;                      // an application message with this body
    std::optional<unsigned> priority;      // implies app
    bool compress = false;                 // implies app: the receiver accepts a compressed body
};
struct SendOptions {
    std::string destination;
    PayloadOptions payload;
    uint32_t command = 0;
    bool confirm = true;
    int timeout_s = 5;
    uint64_t count = 1;
    double interval_s = 0;
};
int send(Console &out, const SendOptions &options);
struct ListenOptions {
    std::string name;
    uint64_t count = 0; // 0: until interrupted
    bool hex = false;
    bool raw = false;       // the payloads alone, as they are
    size_t max_bytes = 256; // shown of a payload
};
int listen(Console &out, const ListenOptions &options);

// --- requests.cpp
struct RequestOptions {
    std::string destination;
    PayloadOptions payload;
    uint32_t command = 0;
    int timeout_s = 5;
    bool hex = false, raw = false;
    size_t max_bytes = 4096;
};
int request(Console &out, const RequestOptions &options);
struct ReplyOptions {
    std::string name;
    PayloadOptions payload;
    bool echo = false; // answers with the request's own bytes
    std::optional<uint32_t> command;
    uint64_t count = 0; // 0: until interrupted
    bool quiet = false;
};
int reply(Console &out, const ReplyOptions &options);

// --- send_file.cpp
struct SendFileOptions {
    std::string destination, path;
    int timeout_s = 10;
};
int send_file(Console &out, const SendFileOptions &options);

// --- receive_files.cpp
struct ReceiveFilesOptions {
    std::string directory;
    std::string name;   // of the endpoint; empty: one of its own
    uint64_t count = 0; // 0: until interrupted
};
int receive_files(Console &out, const ReceiveFilesOptions &options);

// --- trace.cpp
struct TraceOptions {
    std::string action; // on, off, show
};
int trace(Console &out, const TraceOptions &options);
struct ExplainOptions {
    std::optional<std::string> hex;  // neither: hexadecimal text from standard input
    std::optional<std::string> file; // the bytes themselves
};
int explain(Console &out, const ExplainOptions &options);

// --- list.cpp
struct SocketListOptions {
    std::vector<std::string> deploy_types; // besides those that are found
    bool clean = false;                    // removes stale files
    bool pool = false;                     // shows each sending socket
    bool names = false;                    // the names of live endpoints alone, for completion
};
int list_sockets(Console &out, const SocketListOptions &options);

// --- doctor.cpp
struct DoctorOptions {};
int doctor(Console &out, const DoctorOptions &options);

// --- bench.cpp
struct BenchOptions {
    double seconds = 1; // each work, about
};
int bench(Console &out, const BenchOptions &options);

} // namespace tavctl
