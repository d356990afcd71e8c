#include "settings.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <memory>

#include <unistd.h>

#include "tavbase.h"

namespace tavbridge {
namespace {

constexpr uint64_t kLeastStream = 1 << 20, kMostStream = uint64_t{1} << 50; // bytes
constexpr uint64_t kMostAge_s = 366 * 86400; // a year; more is probably in another unit
constexpr uint64_t kLeastWaiting = 1 << 20, kMostWaiting = uint64_t{1} << 32; // bytes: some datagrams; memory
constexpr uint64_t kMostWindow = 4096; // datagrams of up to 64,060 bytes: 262 MB

struct FreeIni {
    void operator()(ini_file_t *file) const { ini_file_free(file); }
};

class Reader {
  public:
    Reader(const std::string &path, Problems &problems)
        : file_(ini_file_load(path.c_str())), problems_(problems) {
        if (!file_) problems_.push_back(path + ": " + std::strerror(errno));
    }
    std::string text(const char *section, const char *key, const char *preset = "") const {
        const char *found = file_ ? ini_file_get(file_.get(), section, key) : nullptr;
        return found ? found : preset;
    }
    uint64_t number(const char *section, const char *key, uint64_t preset, uint64_t least, uint64_t most) {
        const std::string found = text(section, key);
        if (found.empty()) return preset;
        uint64_t value = 0;
        const auto [stop, error] = std::from_chars(found.data(), found.data() + found.size(), value);
        if (error == std::errc() && !*stop && value >= least && value <= most) return value;
        complain(section, key,
                 "is not a number from " + std::to_string(least) + " to " + std::to_string(most));
        return preset;
    }
    bool flag(const char *section, const char *key) { return number(section, key, 0, 0, 1) != 0; }
    // The path of a file that can be read. A leading "@" is the directory of the executable.
    std::string file(const char *section, const char *key) {
        const std::string found = text(section, key);
        char path[PATH_MAX];
        if (found.empty()) return found;
        if (dirutils_path_transform(found.c_str(), path, sizeof path) != 0 || access(path, R_OK) != 0)
            complain(section, key, found + ": " + std::strerror(errno));
        return path;
    }
    void complain(const char *section, const char *key, const std::string &what) {
        problems_.push_back("[" + std::string(section) + "] " + key + ": " + what);
    }

  private:
    std::unique_ptr<ini_file_t, FreeIni> file_;
    Problems &problems_;
};

std::vector<std::string> split_list(const std::string &text) {
    std::vector<std::string> items;
    for (size_t at = 0; at < text.size();) {
        const size_t begin = text.find_first_not_of(", \t", at);
        if (begin == text.npos) break;
        at = std::min(text.find_first_of(", \t", begin), text.size());
        items.push_back(text.substr(begin, at - begin));
    }
    return items;
}

// The locations that the text names, all when it is empty.
std::bitset<256> read_locations(Reader &ini) {
    std::bitset<256> locations;
    const std::string text = ini.text("policy", "locations");
    if (text.empty()) return locations.set();
    for (const std::string &item : split_list(text)) {
        uint8_t number = 0;
        const auto [stop, error] = std::from_chars(item.data(), item.data() + item.size(), number);
        if (error != std::errc() || *stop || number == 0)
            ini.complain("policy", "locations", item + " is not a location from 1 to 255");
        locations.set(number);
    }
    return locations;
}

void read_engine(Reader &ini, Settings &settings) {
    settings.servers = split_list(ini.text("engine", "servers", "nats://127.0.0.1:4222"));
    settings.domain = ini.text("engine", "domain", "agent");
    settings.ca = ini.file("engine", "ca");
    settings.certificate = ini.file("engine", "certificate");
    settings.key = ini.file("engine", "key");
    settings.credentials = ini.file("engine", "credentials");
    settings.nkey = ini.text("engine", "nkey");
    settings.nkey_seed = ini.file("engine", "nkey_seed");
    settings.allow_plain = ini.flag("engine", "allow_plain");
    if (settings.servers.empty()) ini.complain("engine", "servers", "names no server");
    if (!is_token(settings.domain) || settings.domain.size() > 32)
        ini.complain("engine", "domain", "has a blank, a dot, a wildcard or more than 32 characters");
    if (settings.certificate.empty() != settings.key.empty())
        ini.complain("engine", "key", "certificate and key belong together");
    if (settings.nkey.empty() != settings.nkey_seed.empty())
        ini.complain("engine", "nkey_seed", "nkey and nkey_seed belong together");
    if (!settings.nkey.empty() && !settings.credentials.empty())
        ini.complain("engine", "nkey", "excludes credentials");
    for (const std::string &server : settings.servers)
        if (!is_loopback(server) && !settings.tls() && !settings.allow_plain)
            ini.complain("engine", "servers", server + " is another machine: set ca, or allow_plain = 1");
}

} // namespace

bool is_loopback(const std::string &url) {
    const size_t scheme = url.find("://"), user = url.rfind('@');
    size_t begin = scheme == url.npos ? 0 : scheme + 3;
    if (user != url.npos && user >= begin) begin = user + 1;
    const std::string host = url.substr(begin, url.find_first_of("/:", begin) - begin);
    if (host == "localhost" || url.compare(begin, 5, "[::1]") == 0) return true;
    // A name such as "127.example.org" is no address.
    return host.starts_with("127.") && host.find_first_not_of("0123456789.") == host.npos;
}

Settings load_settings(const std::string &path, Problems &problems) {
    Settings settings;
    settings.path = path;
    Reader ini(path, problems);
    read_engine(ini, settings);
    const std::string any = ini.text("policy", "any", "all");
    if (any != "all" && any != "one") ini.complain("policy", "any", "is neither all nor one");
    settings.any_to_all = any != "one";
    settings.reachable = read_locations(ini);
    settings.ipc_conf = ini.file("policy", "ipc_conf");
    settings.stream_bytes = ini.number("bounds", "stream_bytes", 1 << 30, kLeastStream, kMostStream);
    settings.stream_age_s = ini.number("bounds", "stream_age_s", 86400, 1, kMostAge_s);
    settings.duplicates_s = ini.number(
        "bounds", "duplicates_s", std::min<uint64_t>(120, settings.stream_age_s), 1, settings.stream_age_s);
    settings.replicas = ini.number("bounds", "replicas", 1, 1, 5);
    settings.waiting_bytes = ini.number("bounds", "waiting_bytes", 16 << 20, kLeastWaiting, kMostWaiting);
    settings.window = ini.number("bounds", "window", 256, 1, kMostWindow);
    settings.attempts = ini.number("bounds", "attempts", 10, 1, 1000000);
    return settings;
}

} // namespace tavbridge
