#include "settings.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <sstream>

#include "common/owned.h"
#include "common/regular_file.h"
#include "tavbase.h"
#include "tavipc/tav_ipc.h"

#pragma weak ini_file_next_unused // another base library may lack it

namespace tavbridge {
namespace {

constexpr uint64_t kLeastStream = 1 << 20, kMostStream = uint64_t{1} << 50; // bytes
constexpr uint64_t kMostAge_s = uint64_t{366} * 86400; // a year; more is probably in another unit
constexpr uint64_t kLeastWaiting = 1 << 20, kMostWaiting = uint64_t{1} << 32; // bytes: some datagrams; memory
constexpr uint64_t kMostWindow = 4096; // datagrams of up to 64,060 bytes: 262 MB

struct Section {
    ini_file_t *const file;
    const char *const name;
    Problems &problems;

    std::string text(const char *key, const char *preset = "") const {
        const char *found = file ? ini_file_get(file, name, key) : nullptr;
        return found ? found : preset;
    }
    uint64_t number(const char *key, uint64_t preset, uint64_t least, uint64_t most) const {
        const std::string found = text(key);
        uint64_t value = preset;
        if (!found.empty() && (!read_number(found, value) || value < least || value > most))
            complain(key, "is not a number from " + std::to_string(least) + " to " + std::to_string(most));
        return value;
    }
    // The path of a regular file that can be read. A leading "@" is the directory of the executable.
    std::string readable_file(const char *key) const {
        std::string found = text(key);
        char path[PATH_MAX];
        if (found.empty()) return found;
        if (dirutils_path_transform(found.c_str(), path, sizeof path) != 0 ||
            !tavipc::open_regular(path, O_RDONLY))
            complain(key, found + ": " + std::strerror(errno));
        return path;
    }
    void complain(const char *key, const std::string &what) const {
        problems.push_back("[" + std::string(name) + "] " + key + ": " + what);
    }
};

// Whether a connection to the server's URL stays on this machine.
bool is_loopback(const std::string &url) {
    const size_t scheme = url.find("://"), user = url.rfind('@');
    size_t begin = scheme == url.npos ? 0 : scheme + 3;
    if (user != url.npos && user >= begin) begin = user + 1;
    const std::string host = url.substr(begin, url.find_first_of("/:", begin) - begin);
    if (host == "localhost" || url.compare(begin, 5, "[::1]") == 0) return true;
    // A name such as "127.example.org" is no address.
    return host.starts_with("127.") && host.find_first_not_of("0123456789.") == host.npos;
}

void read_engine(const Section &ini, Settings &settings) {
    std::string servers = ini.text("servers", "nats://127.0.0.1:4222");
    std::replace(servers.begin(), servers.end(), ',', ' ');
    std::istringstream words(servers);
    settings.servers.assign(std::istream_iterator<std::string>(words), {});
    settings.domain = ini.text("domain", "agent");
    settings.ca = ini.readable_file("ca");
    settings.certificate = ini.readable_file("certificate");
    settings.key = ini.readable_file("key");
    settings.credentials = ini.readable_file("credentials");
    settings.nkey = ini.text("nkey");
    settings.nkey_seed = ini.readable_file("nkey_seed");
    if (settings.servers.empty()) ini.complain("servers", "names no server");
    const std::string &name = settings.domain; // of the streams, too
    if (!is_token(name) || name.size() > 32 || name.find('\\') != name.npos || name.ends_with("_ALL"))
        ini.complain("domain", "has a blank, dot, wildcard or slash, over 32 characters, or _ALL at its end");
    if (settings.certificate.empty() != settings.key.empty())
        ini.complain("key", "certificate and key belong together");
    if (settings.nkey.empty() != settings.nkey_seed.empty())
        ini.complain("nkey_seed", "nkey and nkey_seed belong together");
    if (!settings.nkey.empty() && !settings.credentials.empty()) ini.complain("nkey", "excludes credentials");
    const bool allow_plain = ini.number("allow_plain", 0, 0, 1) == 1;
    for (const std::string &server : settings.servers)
        if (!settings.tls() && !allow_plain && !is_loopback(server))
            ini.complain("servers", server + " is another machine: set ca, or allow_plain = 1");
}

void read_policy(const Section &ini, Home &home) {
    const std::string any = ini.text("any", "all");
    if (any != "all" && any != "one") ini.complain("any", "is neither all nor one");
    home.any_to_all = any != "one";
    const std::string ipc_conf = ini.readable_file("ipc_conf");
    if (ipc_conf.empty()) return;
    load_ipc_proxy_conf(ipc_conf.c_str());
    home.durable = !(get_ipc_proxy_conf()->options & 1); // disable_offline_cache
}

void read_bounds(const Section &ini, Settings &settings) {
    settings.stream_bytes = ini.number("stream_bytes", 1 << 30, kLeastStream, kMostStream);
    settings.stream_age_s = ini.number("stream_age_s", 86400, 1, kMostAge_s);
    settings.duplicates_s =
        ini.number("duplicates_s", std::min<uint64_t>(120, settings.stream_age_s), 1, settings.stream_age_s);
    settings.replicas = ini.number("replicas", 1, 1, 5);
    settings.waiting_bytes = ini.number("waiting_bytes", 16 << 20, kLeastWaiting, kMostWaiting);
    settings.window = ini.number("window", 256, 1, kMostWindow);
    settings.attempts = ini.number("attempts", 10, 1, 1000000);
}

} // namespace

Settings load_settings(const std::string &path, Problems &problems) {
    const std::unique_ptr<ini_file_t, tavipc::Free<ini_file_free>> file(ini_file_load(path.c_str()));
    if (!file) problems.push_back(path + ": " + std::strerror(errno));
    Settings settings;
    read_engine({file.get(), "engine", problems}, settings);
    read_policy({file.get(), "policy", problems}, settings.home);
    read_bounds({file.get(), "bounds", problems}, settings);
    while (const char *unknown = ini_file_next_unused ? ini_file_next_unused(file.get()) : nullptr)
        problems.push_back(std::string(unknown) + ": there is no such setting");
    return settings;
}

} // namespace tavbridge
