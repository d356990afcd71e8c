// What other programs write: allow-lists, envelopes, headers, the sources of the agent id, INI files. The
// first byte of an input selects the parser. Files that a parser opens are in `files`.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <map>

#include <fcntl.h>
#include <ini.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <sys/syscall.h>

#include "agentid/conf_dir.h"
#include "harness.h"
#include "ipc/wire.h"
#include "platform/aux/deployment.cpp" // reads its facts once per process, here once per input
#include "tavipc/tav_compress.h"

static std::map<std::string, std::string, std::less<>> files; // by name
static std::string exchanged_list, decrypted;

extern "C" {

__attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
    const std::string_view name(path);
    const auto file = files.find(name.substr(name.rfind('/') + 1));
    if (file == files.end()) return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0600));
    const int fd = fuzz::memory_file(file->second);
    if (file->first == "linux.json" && !exchanged_list.empty()) file->second = exchanged_list;
    return fd;
}
ssize_t readlink(const char *, char *out, size_t size) noexcept {
    return static_cast<ssize_t>(std::string_view("/x/bin/fuzz").copy(out, size));
}
int RSA_public_decrypt(int size, const unsigned char *, unsigned char *to, RSA *,
                       int) { // 11 bytes are padding
    return static_cast<int>(decrypted.copy(reinterpret_cast<char *>(to), static_cast<size_t>(size) - 11));
}
int shell_execute(const char *, char *out, int size) noexcept {
    return out[files["machineid"].copy(out, static_cast<size_t>(size) - 1)] = '\0', 0;
}
// AddressSanitizer does not know the line buffer of libinih: the reader gets one of its own.
static ini_reader inner_reader;
static char *checked_reader(char *buffer, int size, void *stream) {
    const std::unique_ptr<char[]> own(new char[static_cast<size_t>(size)]);
    return inner_reader(own.get(), size, stream) ? strcpy(buffer, own.get()) : nullptr;
}
__attribute__((visibility("default"))) int ini_parse_stream(ini_reader reader, void *stream,
                                                            ini_handler handler, void *user) {
    inner_reader = reader;
    return reinterpret_cast<decltype(&ini_parse_stream)>(dlsym(RTLD_NEXT, __func__))(checked_reader, stream,
                                                                                     handler, user);
}
int get_ipaddr_by_host(const char *, char *ip) noexcept { return strcpy(ip, "192.0.2.123"), 1; }

} // extern "C"

namespace {

std::string hex_digest(const std::string &text) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    char hex[2 * sizeof digest];
    return Hex_Encode_Lower(digest, sizeof digest, hex, sizeof hex), std::string(hex, sizeof hex);
}

// For most inputs the signature holds the digest of the list, so that the list is parsed.
void allow_list(fuzz::Input &in) {
    const uint8_t mode = in.u8();
    files["linux_sign.json"] = mode & 1 ? in.text(in.u16()) : std::string(342, 'A') + "==";
    decrypted = in.text(mode & 2 ? in.u8() : 0);
    exchanged_list = in.text(mode & 4 ? in.u8() : 0); // at the second reading
    const std::string list = files["linux.json"] = in.rest();
    if (!(mode & 2)) decrypted = hex_digest(list);
    if (c_get_process() != 0) return;
    FUZZ_CHECK(list.find(hex_digest("fuzz")) != list.npos || list.find("\\u") != list.npos);
    FUZZ_CHECK(hex_digest(list) == decrypted.substr(0, decrypted.find('\0')));
    FUZZ_CHECK(exchanged_list.empty() || exchanged_list == list);
}

struct Envelope {
    void *out = nullptr;
    uint32_t length = 77;
    ~Envelope() { std::free(out); }
    explicit Envelope(std::string_view packed, uint32_t reserve) {
        const auto size = static_cast<uint32_t>(packed.size());
        const int32_t code = tav_uncompress2(fuzz::exact(packed).get(), size, &out, &length, reserve);
        FUZZ_CHECK(code == 0 ? out && length >= reserve : !out && length == 0);
    }
};
void envelope(fuzz::Input &in) {
    const uint8_t mode = in.u8();
    const uint32_t reserve = mode & 1 ? in.u16() : 0;
    std::string text = in.rest();
    if (text.size() > 2 && mode & 2)
        text[0] = '\0', text[1] &= 7; // most claims are small: large ones cost time
    Envelope opened(text, reserve), packed("", 0);
    const int flags = mode & 4 ? TAV_COMPRESS_FORCE : 0;
    const auto size = static_cast<uint32_t>(text.size());
    if (tav_compress2(fuzz::exact(text).get(), size, &packed.out, &packed.length, reserve, flags) == 0) {
        const Envelope again({static_cast<char *>(packed.out) + reserve, packed.length - reserve}, 0);
        FUZZ_CHECK(again.out && std::string_view(static_cast<char *>(again.out), again.length) == text);
        FUZZ_CHECK(flags || packed.length - reserve < size);
    }
}

void header(fuzz::Input &in) {
    std::string bytes = in.text(sizeof(tav_ipc_hdr_st));
    bytes.resize(sizeof(tav_ipc_hdr_st));
    tav_ipc_hdr_st header = tavipc::read_header(fuzz::exact(bytes).get());
    header.flags |= IPC_FLAG_TRACE;
    if (in.u8() & 1) header.magic = tav_ipc_hdr_magic(&header);
    tav_ipc_msg_trace_ex("file", 1, &header, "%s", in.rest().c_str());
    FUZZ_CHECK(tav_addr_cmp(&header.src, &header.dest) == tav_addr_cmp(&header.dest, &header.src));
    const tavipc::NameText name = tavipc::name_text(header.src);
    tav_addr_st *copy = tav_addr_create2(name, header.src.loc, header.src.hostid, header.src.flags);
    FUZZ_CHECK(!copy == (strlen(name) > TAV_IPC_NAME_MAX) && (!copy || tav_addr_cmp(copy, &header.src) == 0));
    tav_addr_destroy(copy);
}

void identity(fuzz::Input &in) {
    const std::string text = files["machineid"] = in.rest(); // and the output of the guest tool
    uint32_t stored = 0;
    if (text.size() >= sizeof stored) memcpy(&stored, text.data(), sizeof stored);
    FUZZ_CHECK(ReadAgentid("/x/machineid") == stored);
    g_vmid = 0;
    const uint64_t id = tav_get_vmidid_from_G2HProxy();
    FUZZ_CHECK(id == 0 || text.find("vmid") != text.npos || text.find("\\u") != text.npos);
    FUZZ_CHECK(g_vmid == 0 && tav_get_vmidid() == id && g_vmid == id);
}

// All INI files have the same text, with an entry of a section, key and value that must be found.
void ini(fuzz::Input &in) {
    const uint8_t form = in.u8();
    const auto word = [&](size_t max) {
        std::string text = in.text(1 + in.u8() % max) + "x";
        for (char &c : text) c = static_cast<char>("abcdefghijklmnopqrstuvwxyz012345"[c & 31]);
        return text;
    };
    const std::string section = word(48), key = word(48), value = word(200), end = form & 2 ? " \r\n" : "\n";
    const std::string entry = "[" + section + "]" + end + key + (form & 4 ? " = " : "=") + value + end;
    const std::string text =
        form & 1 ? in.rest() + entry : (form & 8 ? "\xEF\xBB\xBF" : "") + entry + in.rest();
    for (const char *name : {"y.ini", "agent.ini", "server.ini", "server_port.ini", "ipc.ini"})
        files[name] = text;
    const tavipc::IniFile file(ini_file_load("/x/y.ini"));
    const char *found = ini_file_get(file.get(), section.c_str(), key.c_str());
    FUZZ_CHECK(form & 1 || (found && found == value));
    const Facts facts = read_facts(load_file());
    const tavipc::IniFile owner(const_cast<ini_file_t *>(facts.file));
    const char *type = facts.deploy_type ? facts.deploy_type : "x";
    FUZZ_CHECK(strlen(type) <= 64 && *type != '/' && !strstr(type, ".."));
    char ip[] = "###";
    unsigned short port = 7;
    FUZZ_CHECK(GetMgrAddr(ip, 3, &port) != 0 || strlen(ip) == 2);
    load_ipc_proxy_conf("/x/ipc.ini");
    FUZZ_CHECK(get_ipc_proxy_conf()->eagain_max_retry_times <= INT32_MAX);
}

constexpr void (*kParsers[])(fuzz::Input &) = {allow_list, envelope, header, identity, ini};

} // namespace

static void run_input(fuzz::Input &in) {
    error_output_set_level(4);
    error_output_set_sink([](int, const char *, int, const char *line, void *) { FUZZ_CHECK(line); },
                          nullptr);
    files.clear();
    kParsers[in.u8() % std::size(kParsers)](in);
}
