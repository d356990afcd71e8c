// tavctl trace and explain: the message trace, and the header of a datagram.

#include "commands.h"
#include "common/facts.h"
#include "module/module.h"

namespace tavctl {
namespace {

using tavipc::kTraceSwitch;

int show(Console &out) {
    struct stat file {};
    Record record("switch", kTraceSwitch);
    if (lstat(kTraceSwitch, &file) == 0) {
        const Stamp since(file.st_mtime);
        record.add("on", true, "since", since, "uid", file.st_uid);
        out.say(record, "{switch}: ON since " + since.format("%Y-%m-%d %H:%M:%S") + ", made by user {uid}");
    } else {
        out.say(record.add("on", false), "{switch}: off");
    }
    out.tell("tavipc(7) explains the lines that modules with TAV_LOG_LEVEL=4 then write.");
    return kSuccess;
}

int switch_on(Console &out) {
    // Anybody may write to /tmp: an existing file is left as it is, and a link is not followed.
    const UniqueFd file(open(kTraceSwitch, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file && errno != EEXIST)
        throw system_problem(std::string("cannot make ") + kTraceSwitch, "may this user write to /tmp?");
    out.say(Record("switch", kTraceSwitch, "on", true), file ? "{switch}: ON" : "{switch}: was on already",
            "; modules with TAV_LOG_LEVEL=4 trace every message within ten seconds");
    return kSuccess;
}

int switch_off(Console &out) {
    const bool was_on = unlink(kTraceSwitch) == 0;
    if (!was_on && errno != ENOENT)
        throw system_problem(std::string("cannot remove ") + kTraceSwitch,
                             "it belongs to another user: run tavctl as that user, or as root");
    out.say(Record("switch", kTraceSwitch, "on", false),
            was_on ? "{switch}: off; modules notice within ten seconds" : "{switch}: was off already");
    return kSuccess;
}

constexpr size_t kLongestInput = 1 << 20; // bytes

using Flag = std::pair<unsigned, const char *>; // bit and name
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
    for (const auto &[bit, name] : names)
        if (flags & bit) text += std::string(text.empty() ? "" : " ") + name;
    for (const auto &[bit, name] : names) flags &= ~bit;
    if (flags != 0) text += std::string(text.empty() ? "" : " ") + "others " + hex_number(flags, 1);
    return text.empty() ? "none" : text;
}

// Adds the fields of an address. Returns the pattern of its line.
std::string add_address(Record &record, const std::string &prefix, const tav_addr_st &address) {
    const std::string_view name(address.name, strnlen(address.name, sizeof address.name));
    record.add(prefix + "_name", name, prefix + "_location", address.loc);
    record.add(prefix + "_hostid", address.hostid, prefix + "_flags", address.flags);
    return "\"{" + prefix + "_name}\"" + (name.size() > TAV_IPC_NAME_MAX ? " (not terminated)" : "") +
           ", location {" + prefix + "_location}, host {" + prefix + "_hostid}, flags " +
           flags_text(address.flags, kAddressFlags) + "\n";
}

// A datagram as a receiver sees it.
struct Datagram {
    tav_ipc_hdr_st header;
    size_t payload; // bytes that are here
    uint32_t expected;
    bool fragment;
    unsigned sequence;

    explicit Datagram(const std::string &bytes) {
        if (bytes.size() < sizeof header)
            throw Problem("a datagram has at least the 60 bytes of its header, these are " +
                              std::to_string(bytes.size()),
                          "give the whole header; a receiver drops what is shorter");
        std::memcpy(&header, bytes.data(), sizeof header);
        payload = bytes.size() - sizeof header;
        expected = tav_ipc_hdr_magic(&header);
        fragment = header.frag_word[0] & 1;
        sequence = header.frag_word[0] >> 1 | (header.frag_word[1] & 7u) << 7;
    }
    // Why a receiver would drop it; empty when it would not.
    std::string objection() const {
        if (header.magic != expected)
            return "the check value is wrong: a receiver drops this datagram silently";
        if (header.size > payload)
            return "only " + grouped(payload) + " of " + grouped(header.size) +
                   " payload bytes are here: a receiver drops such a datagram silently";
        const uint64_t at = uint64_t{sequence} * TAV_IPC_FRAGMENT_PAYLOAD;
        const uint64_t rest = header.frag_orig > at ? header.frag_orig - at : 0;
        if (fragment && (header.frag_orig > TAV_IPC_MESSAGE_MAX ||
                         header.size != std::min<uint64_t>(rest, TAV_IPC_FRAGMENT_PAYLOAD)))
            return "this fragment does not have the length that follows from its number and its message: "
                   "a receiver drops it";
        return {};
    }
};

} // namespace

int trace(Console &out, const Args &args) {
    const std::string action = args.text("ACTION");
    if (action == "show") return show(out);
    if (action != "on" && action != "off") throw misuse("\"" + action + "\" is not one of on, off and show");
    return action == "on" ? switch_on(out) : switch_off(out);
}

int explain(Console &out, const Args &args) {
    if (args.has("HEX") && args.has("file")) throw misuse("give HEX or --file, not both");
    std::string hex = args.text("HEX");
    if (hex.empty() && !args.has("file"))
        hex = read_descriptor(STDIN_FILENO, "standard input", kLongestInput);
    const Datagram datagram(args.has("file") ? read_file(args.text("file"), kLongestInput) : parse_hex(hex));
    const tav_ipc_hdr_st &header = datagram.header;
    const std::string objection = datagram.objection();
    const bool right = header.magic == datagram.expected, fragment = datagram.fragment;
    Record record;
    const std::string dest = add_address(record, "dest", header.dest),
                      src = add_address(record, "src", header.src);
    record.add("reqid", header.reqid, "flags", header.flags, "flag_names",
               flags_text(header.flags, kMessageFlags));
    record.add("rflags", header.rflags, "cmd", header.cmd, "size", header.size, "frag_orig", header.frag_orig,
               "fragment", fragment, "sequence", datagram.sequence, "frag_id", header.frag_id, "magic",
               header.magic, "magic_expected", datagram.expected, "payload", datagram.payload);
    const std::string text =
        " 0  dest       " + dest + "16  src        " + src + "32  reqid      {reqid}\n36  flags      " +
        hex_number(header.flags, 4) + ": {flag_names}\n38  rflags     " + hex_number(header.rflags, 4) +
        "\n40  cmd        {cmd}\n44  size       {size,} bytes\n48  frag_orig  {frag_orig,}" +
        (fragment ? " bytes in the whole message\n52  frag_word  fragment {sequence}"
                  : "\n52  frag_word  not a fragment") +
        "\n54  frag_id    {frag_id}\n56  magic      " + hex_number(header.magic, 8) +
        (right ? ", right" : ", WRONG: it should be " + hex_number(datagram.expected, 8)) +
        "\n60  payload    {payload,} bytes here";
    out.say(record.add("valid", objection.empty()), text);
    if (!objection.empty()) out.tell("  " + objection);
    return objection.empty() ? kSuccess : kFailure;
}

} // namespace tavctl
