// tav-bridge.ini: what it says, and what is wrong with it. tav-bridge.ini(5) describes the keys.
#pragma once

#include <string>
#include <vector>

#include "subjects.h"

namespace tavbridge {

struct Settings {
    Home home; // with the policy; the place is set by the caller
    // [engine]
    std::vector<std::string> servers;
    std::string domain;
    std::string ca, certificate, key;         // TLS, files
    std::string credentials, nkey, nkey_seed; // a JWT file; a public key, and the file with its seed
    // [bounds]
    uint64_t stream_bytes = 0, stream_age_s = 0, duplicates_s = 0, replicas = 0;
    uint64_t waiting_bytes = 0; // given to the engine and not confirmed
    uint64_t window = 0;        // datagrams taken from the engine and not acknowledged
    uint64_t attempts = 0;      // to hand a datagram to a local socket

    bool tls() const { return !ca.empty() || !certificate.empty(); }
};

// What is wrong with a setting: "[section] key: text". Empty: nothing.
using Problems = std::vector<std::string>;

// Reads the file at path. A missing key has its default.
Settings load_settings(const std::string &path, Problems &problems);

} // namespace tavbridge
