// INI files and those who read them: deployment facts, the manager's address, the IPC configuration. Every
// .ini file has the input's text; and a file put together from a section, key and value must give that value.
#include <cstring>
#include <memory>

#include <dlfcn.h>
#include <fcntl.h>
#include <ini.h>
#include <sys/syscall.h>

#include "agentid/conf_dir.h"
#include "input.h"
#include "platform/aux/deployment.cpp" // its facts are read once per process, here once per input
#include "tavipc/tav_agentid.h"
#include "tavipc/tav_ipc.h"

namespace {

std::string ini_text;

void ignore_line(int, const char *, int, const char *text, void *) { FUZZ_CHECK(text); }

using tavipc::IniFile;

void check_value(const char *value) {
    if (value) FUZZ_CHECK(!strchr(value, '\n') && strlen(value) < 4096);
}

void ask_facts() {
    const Facts facts = read_facts(load_file());
    const IniFile owner(const_cast<ini_file_t *>(facts.file));
    FUZZ_CHECK(!facts.deploy_type || (strlen(facts.deploy_type) <= 64 && *facts.deploy_type != '/' &&
                                      !strstr(facts.deploy_type, "..")));
    FUZZ_CHECK(facts.agent_type);
    check_value(facts.agent_type);
}

void ask_manager(uint8_t size) {
    std::string ip(size, 'x');
    unsigned short port = 7;
    if (GetMgrAddr(ip.data(), size, &port) == 0) FUZZ_CHECK(ip.find('\0') != ip.npos);
}

void ask_configuration() {
    FUZZ_CHECK(load_ipc_proxy_conf("/x/config/ipc.ini") == 0);
    const ipc_proxy_conf_st &conf = *get_ipc_proxy_conf();
    FUZZ_CHECK((conf.options & ~1u) == 6 && conf.eagain_max_retry_times <= INT32_MAX &&
               conf.eagain_retry_interval_ms <= INT32_MAX);
}

// Letters and digits of the input, at least one.
std::string word(fuzz::Input &in, size_t max) {
    std::string text = in.text(1 + in.u8() % max);
    for (char &c : text) c = static_cast<char>("abcdefghijklmnopqrstuvwxyz012345"[c & 31]);
    return text.empty() ? "x" : text;
}

void composed(fuzz::Input &in) {
    const std::string section = word(in, 49), key = word(in, 49), value = word(in, 200);
    const uint8_t form = in.u8();
    ini_text = form & 1 ? "\xEF\xBB\xBF" : "";
    ini_text += "other line\n[" + section + "]" + (form & 2 ? " ; comment" : "") + (form & 4 ? "\r\n" : "\n");
    ini_text +=
        (form & 8 ? "\t " : "") + key + (form & 16 ? " = " : "=") + value + (form & 32 ? "  \r\n" : "\n");
    if (form & 64) ini_text += key + "=again\n";
    if (form & 128) ini_text.insert(ini_text.find('\n') + 1, std::string(5000, 'l') + "\n");
    const IniFile file(ini_file_load("/x/y.ini"));
    const char *found = ini_file_get(file.get(), section.c_str(), key.c_str());
    FUZZ_CHECK(found && found == value);
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
    if (std::string_view(path).ends_with(".ini")) return fuzz::memory_file(ini_text);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0600));
}
// AddressSanitizer does not know libinih's line buffer: the reader fills one of its own.
__attribute__((visibility("default"))) int ini_parse_stream(ini_reader reader, void *stream,
                                                            ini_handler handler, void *user) {
    static const auto real = reinterpret_cast<decltype(&ini_parse_stream)>(dlsym(RTLD_NEXT, __func__));
    struct Source {
        ini_reader reader;
        void *stream;
    } source{reader, stream};
    const auto read = [](char *buffer, int size, void *from) -> char * {
        const auto *inner = static_cast<const Source *>(from);
        const std::unique_ptr<char[]> own(new char[static_cast<size_t>(size)]);
        return inner->reader(own.get(), size, inner->stream) ? strcpy(buffer, own.get()) : nullptr;
    };
    return real(read, &source, handler, user);
}
int get_ipaddr_by_host(const char *host, char *ip) noexcept {
    if (*host == '!') return 0;
    return strcpy(ip, "192.0.2.123"), 1;
}

} // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    error_output_set_level(4);
    error_output_set_sink(ignore_line, nullptr);
    const int before = fuzz::open_descriptors();
    fuzz::Input in(data, size);
    const uint8_t mode = in.u8();
    if (mode < 64) {
        composed(in);
    } else {
        const std::string key = in.text(in.u8() % 16);
        ini_text = in.rest();
        const IniFile file(ini_file_load("/x/y.ini"));
        FUZZ_CHECK(file);
        check_value(ini_file_get(file.get(), "", key.c_str()));
        check_value(ini_file_get(file.get(), key.c_str(), key.c_str()));
        ask_facts();
        ask_manager(mode & 31);
        ask_configuration();
    }
    FUZZ_CHECK(fuzz::open_descriptors() == before);
    return 0;
}
