// tavctl trace and explain: what happens on the road.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <span>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "files.h"
#include "payload.h"
#include "problem.h"
#include "tavipc/tav_ipc.h"

namespace tavctl {
namespace {

constexpr char kSwitch[] = "/tmp/ipc_debug";

constexpr char kLegend[] = R"(
With TAV_LOG_LEVEL=4 in its environment a module writes a line for each message
that it sends or gets:

  [MSG TRACE] [alpha@42:2:80]->[beta@42:2:0], reqid:7, flags:0x200, rflags: 0x0,
  frag:1:300:4, cmd: 9, size: 64000(200000), send via dunix: beta

  [alpha@42:2:80]       source: name, host id, location, address flags (hex)
  ->[beta@42:2:0]       destination, likewise
  reqid:7               id of the message, or of the request that it answers
  flags:0x200           1 ACK, 2 NEED_ACK, 4 FILE, 8 PROBE, 10 REQUEST, 20 RESPONSE,
                        40 TRACE, 100 COMPRESSED, 200 APP_MSG
  frag:1:300:4          is a fragment, of set 300, number 4
  cmd: 9                command code
  size: 64000(200000)   payload bytes here, and in a fragment of the whole message
  send via dunix: beta  what happens to it: here it leaves for the socket beta

"[Invalid message header]" stands for a header whose check value is wrong.

While the switch file exists every message is traced; without it those that
carry TRACE, which a sender with IPC_TEST=1 in its environment sets. Modules look
for the file once in ten seconds.)";

int show(Console &out) {
    struct stat file {};
    const bool on = lstat(kSwitch, &file) == 0;
    Record record;
    record.add("switch", kSwitch).add("on", on);
    std::string text = std::string(kSwitch) + (on ? ": ON" : ": off");
    if (on) {
        char since[64] = "";
        tm local{};
        strftime(since, sizeof since, "%Y-%m-%d %H:%M:%S", localtime_r(&file.st_mtime, &local));
        record.add("since", static_cast<int64_t>(file.st_mtime)).add("uid", file.st_uid);
        text += std::string(" since ") + since + ", made by user " + std::to_string(file.st_uid);
    }
    out.say(record, text);
    out.tell(kLegend);
    return kSuccess;
}

int switch_on(Console &out) {
    // In a directory where anybody may write: an existing file is left as it is, a link is not followed.
    const Descriptor file(open(kSwitch, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file && errno != EEXIST)
        throw system_problem(std::string("cannot make ") + kSwitch, "may this user write to /tmp?");
    out.say(Record().add("switch", kSwitch).add("on", true),
            std::string(kSwitch) + (file ? ": ON" : ": was on already") +
                "; modules with TAV_LOG_LEVEL=4 trace every message within ten seconds");
    return kSuccess;
}

int switch_off(Console &out) {
    const bool was_on = unlink(kSwitch) == 0;
    if (!was_on && errno != ENOENT)
        throw system_problem(std::string("cannot remove ") + kSwitch,
                             "it belongs to another user: run tavctl as that user, or as root");
    out.say(Record().add("switch", kSwitch).add("on", false),
            std::string(kSwitch) +
                (was_on ? ": off; modules notice within ten seconds" : ": was off already"));
    return kSuccess;
}

struct Flag {
    unsigned bit;
    const char *name;
};
constexpr Flag kMessageFlags[] = {
    {IPC_FLAG_ACK, "ACK"},     {IPC_FLAG_NEED_ACK, "NEED_ACK"},     {IPC_FLAG_FILE, "FILE"},
    {IPC_FLAG_PROBE, "PROBE"}, {IPC_FLAG_REQUEST, "REQUEST"},       {IPC_FLAG_RESPONSE, "RESPONSE"},
    {IPC_FLAG_TRACE, "TRACE"}, {IPC_FLAG_COMPRESSED, "COMPRESSED"}, {IPC_FLAG_APP_MSG, "APP_MSG"}};
constexpr Flag kAddressFlags[] = {{ADDR_FLAG_COMPRESS_OK, "COMPRESS_OK"}, {ADDR_FLAG_TEMP, "TEMP"}};

std::string hex_number(uint32_t number, int digits) {
    char text[16];
    snprintf(text, sizeof text, "0x%0*X", digits, number);
    return text;
}

std::string flags_text(unsigned flags, std::span<const Flag> names) {
    std::string text;
    for (const Flag &flag : names)
        if (flags & flag.bit) {
            text += std::string(text.empty() ? "" : " ") + flag.name;
            flags &= ~flag.bit;
        }
    if (flags != 0) text += std::string(text.empty() ? "" : " ") + "others " + hex_number(flags, 1);
    return text.empty() ? "none" : text;
}

std::string address_line(const tav_addr_st &address) {
    const size_t length = strnlen(address.name, sizeof address.name);
    return "\"" + harmless(std::string_view(address.name, length)) + "\"" +
           (length > TAV_IPC_NAME_MAX ? " (without an end)" : "") + ", location " +
           std::to_string(address.loc) + ", host " + std::to_string(address.hostid) + ", flags " +
           flags_text(address.flags, kAddressFlags);
}

std::string datagram_bytes(const ExplainOptions &options) {
    if (options.file) return read_file(*options.file, 1 << 20);
    return parse_hex(options.hex ? *options.hex : read_descriptor(STDIN_FILENO, "standard input", 1 << 20));
}

// What a receiver would say of the length and the check value; empty when it would accept the datagram.
std::string objection(const tav_ipc_hdr_st &header, size_t payload, uint32_t expected, unsigned sequence) {
    if (header.magic != expected)
        return "the check value is wrong: a receiver drops this datagram without a word";
    if (header.size > payload)
        return "only " + grouped(payload) + " of " + grouped(header.size) +
               " payload bytes are here: a receiver drops a datagram like this without a word";
    if (header.frag_word[0] & 1) {
        const uint64_t at = uint64_t{sequence} * TAV_IPC_FRAGMENT_PAYLOAD;
        const uint64_t rest = header.frag_orig > at ? header.frag_orig - at : 0;
        if (header.frag_orig > TAV_IPC_MESSAGE_MAX ||
            header.size != std::min<uint64_t>(rest, TAV_IPC_FRAGMENT_PAYLOAD))
            return "this fragment has not the length that belongs to its number and its message: a receiver "
                   "drops it";
    }
    return {};
}

void add_address(Record &record, const std::string &prefix, const tav_addr_st &address) {
    const std::string name(address.name, strnlen(address.name, sizeof address.name));
    record.add((prefix + "_name").c_str(), harmless(name)).add((prefix + "_location").c_str(), address.loc);
    record.add((prefix + "_hostid").c_str(), address.hostid).add((prefix + "_flags").c_str(), address.flags);
}

} // namespace

std::string parse_hex(std::string_view text) {
    std::string bytes;
    int high = -1;
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    for (const char c : text) {
        if (c != '\0' && std::strchr(" \t\r\n:,", c)) continue;
        const char *digits = "0123456789abcdef";
        const char *found = std::strchr(digits, c >= 'A' && c <= 'F' ? c + 32 : c);
        if (!found || c == '\0')
            throw misuse(std::string("\"") + c + "\" is no hexadecimal digit",
                         "two digits a byte; blanks are skipped");
        const int digit = static_cast<int>(found - digits);
        if (high < 0) {
            high = digit;
        } else {
            bytes += static_cast<char>(high << 4 | digit);
            high = -1;
        }
    }
    if (high >= 0) throw misuse("an odd number of hexadecimal digits", "two digits a byte");
    return bytes;
}

int trace(Console &out, const TraceOptions &options) {
    if (options.action == "on") return switch_on(out);
    return options.action == "off" ? switch_off(out) : show(out);
}

int explain(Console &out, const ExplainOptions &options) {
    const std::string bytes = datagram_bytes(options);
    tav_ipc_hdr_st header;
    if (bytes.size() < sizeof header)
        throw Problem(std::to_string(bytes.size()) + " bytes are no datagram: its header alone has 60",
                      "give the whole header; a receiver drops what is shorter");
    std::memcpy(&header, bytes.data(), sizeof header);
    const uint32_t expected = tav_ipc_hdr_magic(&header);
    const size_t payload = bytes.size() - sizeof header;
    const bool fragment = header.frag_word[0] & 1;
    const unsigned sequence = header.frag_word[0] >> 1 | (header.frag_word[1] & 7u) << 7;
    const std::string complaint = objection(header, payload, expected, sequence);

    Record record;
    add_address(record, "dest", header.dest);
    add_address(record, "src", header.src);
    record.add("reqid", header.reqid)
        .add("flags", header.flags)
        .add("flag_names", flags_text(header.flags, kMessageFlags));
    record.add("rflags", header.rflags)
        .add("cmd", header.cmd)
        .add("size", header.size)
        .add("frag_orig", header.frag_orig);
    record.add("fragment", fragment).add("sequence", sequence).add("frag_id", header.frag_id);
    record.add("magic", header.magic)
        .add("magic_expected", expected)
        .add("payload", payload)
        .add("valid", complaint.empty());
    out.say(record,
            " 0  dest       " + address_line(header.dest) + "\n16  src        " + address_line(header.src) +
                "\n32  reqid      " + std::to_string(header.reqid) + "\n36  flags      " +
                hex_number(header.flags, 4) + ": " + flags_text(header.flags, kMessageFlags) +
                "\n38  rflags     " + hex_number(header.rflags, 4) + "\n40  cmd        " +
                std::to_string(header.cmd) + "\n44  size       " + grouped(header.size) + " bytes" +
                "\n48  frag_orig  " + grouped(header.frag_orig) +
                (fragment ? " bytes in the whole message" : "") + "\n52  frag_word  " +
                (fragment ? "fragment " + std::to_string(sequence) : "no fragment") + "\n54  frag_id    " +
                std::to_string(header.frag_id) + "\n56  magic      " + hex_number(header.magic, 8) +
                (header.magic == expected ? ", right" : ", WRONG: it should be " + hex_number(expected, 8)) +
                "\n60  payload    " + grouped(payload) + " bytes here");
    if (!complaint.empty()) out.tell("  " + complaint);
    return complaint.empty() ? kSuccess : kFailure;
}

} // namespace tavctl
