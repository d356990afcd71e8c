#include <charconv>

#include "agent/agent.h"
#include "common/big_endian.h"
#include "common/owned.h"
#include "common/socket_directory.h"
#include "counters/counters.h"
#include "look/sockets.h"
#include "module/module.h"
#include "tavaux.h"
#include "tavipc/tav_agentid.h"

namespace tavctl {
namespace {

std::string name_text(const tav_addr_st &address) {
    return std::string(address.name, strnlen(address.name, sizeof address.name));
}

Problem refusal(const std::string &name) {
    if (const Verdict verdict = judge_executable("/proc/self/exe"); !verdict.allowed)
        return Problem("tavctl may not open an endpoint: " + verdict.reason, verdict.remedy, kNotAllowed);
    const std::string path = tavipc::socket_directory(GetDeployTypeStr(), tav_get_location()) + "/" + name;
    if (probe_socket(path) == SocketState::kLive)
        return Problem("the endpoint name " + name + " is in use: " + path,
                       "give another name (tavctl list shows those taken)");
    return Problem("cannot open the endpoint " + name + " at " + path + take_reason(),
                   "tavctl doctor examines the directory and the identity");
}

// Refuses a name under which the library would not open an endpoint.
void check_may_open(const std::string &name) {
    parse_address(name); // refuses what is not a name
    if (name.find('@') != std::string::npos)
        throw misuse("\"" + name + "\": the tool's own endpoint has no location");
    if (c_get_process() != 0) throw refusal(name);
    // The library would make an id and store it: only tavctl id --create does that.
    const std::string path = configuration_directory() + "/machineid";
    if (!IsCNAPPAgent() && ReadAgentid(path.c_str()) == 0)
        throw Problem("there is no agent id in " + path + " yet",
                      "start a module of the agent, or make one: tavctl id --create");
}

constexpr char kAppMark[] = "3200"; // the first bytes of an application message
constexpr size_t kPriorityAt = 15, kLengthAt = 16;
constexpr size_t kShownBytes = 256; // by commands without --max-bytes

std::string app_message(const std::string &body, unsigned priority) {
    std::string message(TAV_APP_HEADER_SIZE, '\0');
    std::memcpy(message.data(), kAppMark, 4);
    message[kPriorityAt] = static_cast<char>(priority);
    tavipc::store_be32(&message[kLengthAt], static_cast<uint32_t>(body.size()));
    return message + body;
}

// The text with an indent before each line.
std::string text_lines(std::string_view text, size_t limit) {
    const std::string_view part = text.substr(0, limit);
    std::string lines = "  " + harmless(part);
    while (lines.ends_with('\n')) lines.pop_back();
    for (size_t at = 0; (at = lines.find('\n', at)) != std::string::npos; at += 3)
        lines.replace(at, 1, "\n  ");
    if (part.size() < text.size()) lines += "\n  ... " + grouped(text.size() - part.size()) + " bytes more";
    return lines;
}

std::string given_bytes(const Args &args) {
    if (args.has("DATA") && args.has("file")) throw misuse("give DATA or --file, not both");
    if (args.has("DATA")) return args.text("DATA");
    const bool from_input = !args.has("file") || args.text("file") == "-";
    if (from_input && isatty(STDIN_FILENO))
        std::cerr << "tavctl: reading the payload from the terminal, up to its end (Ctrl-D)\n";
    return from_input ? read_descriptor(STDIN_FILENO, "standard input", TAV_IPC_MESSAGE_MAX)
                      : read_file(args.text("file"), TAV_IPC_MESSAGE_MAX);
}

tav_ipc_stats_st stats_of(const Module &module) {
    tav_ipc_stats_st stats{};
    tav_ipc_get_stats(module, nullptr, &stats, sizeof stats);
    return stats;
}

} // namespace

tav_addr_st parse_address(const std::string &text, uint8_t flags) {
    const size_t at = text.find('@');
    const std::string name = text.substr(0, at);
    tav_addr_st address{};
    if (name.empty() || name.size() > TAV_IPC_NAME_MAX || name.find('/') != std::string::npos ||
        name == "." || name == "..")
        throw misuse("\"" + text + "\" is not an endpoint: a name has 1 to 9 characters and no \"/\"",
                     "tavctl list shows the endpoints of this machine");
    std::memcpy(address.name, name.data(), name.size());
    if (at != std::string::npos) {
        const long location = number_of(text.substr(at + 1));
        if (location < 0 || location > 255)
            throw misuse("\"" + text + "\": a location is a number from 0 to 255");
        address.loc = static_cast<uint8_t>(location);
    }
    address.flags = flags;
    return address;
}

std::string address_text(const tav_addr_st &address) {
    return harmless(name_text(address)) + (address.loc != 0 ? "@" + std::to_string(address.loc) : "");
}

std::string configuration_directory() {
    char directory[1024] = "";
    GetTAVConfPath(directory, sizeof directory);
    return directory;
}

Module::Module(const std::string &name, bool accept_files) {
    char digits[16] = ""; // of the process id in base 36: the name has at most 9 characters
    std::to_chars(digits, std::end(digits), getpid(), 36);
    const std::string used = name.empty() ? std::string("ctl") + digits : name;
    check_may_open(used);
    take_reason();
    ipc_ = tav_ipc_create_temp(used.c_str(), accept_files);
    if (!ipc_) throw refusal(used);
}

Answer exchange(const Module &module, int kind, const tav_addr_st &destination, double timeout_s,
                uint32_t cmd, std::string_view payload) {
    constexpr tav_ipc_exchange_cb kOnEnd = [](uint64_t, int32_t code, uint32_t command, const void *data,
                                              uint32_t size, void *user) {
        auto &ended = *static_cast<Answer *>(user);
        ended = {true, code, command, {static_cast<const char *>(data), size}, now_seconds() + ended.took_s};
    };
    Answer outcome;
    outcome.took_s = -now_seconds();
    const uint64_t id = tav_ipc_exchange_start(module, kind, &destination, cmd, payload.data(),
                                               static_cast<uint32_t>(payload.size()),
                                               static_cast<uint32_t>(timeout_s * 1000), kOnEnd, &outcome);
    if (id == 0) throw system_problem("cannot send to " + address_text(destination), "tavctl --verbose");
    if (run_until([&] { return outcome.ended; })) return outcome;
    tav_ipc_exchange_cancel(module, id);
    return {};
}

uint64_t accepted_bytes(const Module &module) {
    const auto stats = stats_of(module);
    return stats.values[TAV_IPC_STATS_ACCEPTED_BYTES] -
           sizeof(tav_ipc_hdr_st) * stats.values[TAV_IPC_STATS_ACCEPTED];
}

void wait_until_left(const Module &module, const tav_addr_st &destination) {
    constexpr int kSlice_ms = 100; // a signal does not end the call
    while (tav_ipc_flush(module, kSlice_ms, nullptr) > 0)
        if (interrupted()) throw Problem("interrupted before the message had left");
    const auto stats = stats_of(module);
    for (size_t i = TAV_IPC_STATS_DROPPED_NO_PEER; i < TAV_IPC_STATS_DROPPED_BYTES; ++i) {
        if (stats.values[i] == 0) continue;
        const Problem why = silence(destination, "dropped: no endpoint ");
        const std::string drops = grouped(stats.values[i]) + " " + kValues[i].meaning; // "990 drops: ..."
        throw Problem(i == TAV_IPC_STATS_DROPPED_NO_PEER ? why.what() : drops, why.remedy());
    }
}

Problem silence(const tav_addr_st &address, const std::string &begin) {
    const int own = tav_get_location(), location = address.loc != 0 ? address.loc : own;
    const std::string path =
        tavipc::socket_directory(GetDeployTypeStr(), location) + "/" + name_text(address);
    const std::string silent = begin + address_text(address);
    if (location != own)
        return Problem(
            silent, "messages for another location go through its proxy endpoint: does it run? tavctl list",
            kNoAnswer);
    const std::pair<std::string, std::string> reasons[] = {
        // by SocketState
        {": there is no socket " + path, "start the module, or see which endpoints there are: tavctl list"},
        {", although its socket is open",
         "its process is busy or stopped, or its application does not answer: tavctl probe " +
             name_text(address) + " asks the library in it; tavctl list shows its process"},
        {": the socket " + path + " is stale, its process is gone",
         "start the module again; tavctl list --clean removes the file"},
        {": " + path + " may not be written by this user",
         "run tavctl as the user of the module, or as root"},
        {": " + path + " is not a socket", "see whose it is, and move it away"}};
    const auto &[reason, remedy] = reasons[static_cast<size_t>(probe_socket(path))];
    return Problem(silent + reason, remedy, kNoAnswer);
}

Problem failed_exchange(const tav_addr_st &address, int code) {
    if (code == IPC_ERR_TIMEOUT || code == IPC_ERR_NO_PEER) return silence(address);
    const std::string reason = take_reason();
    return Problem(address_text(address) + ": " + tav_ipc_strerror(code) + " (" + std::to_string(code) + ")",
                   reason.empty() ? "tavctl --verbose shows the library's log" : reason.substr(2));
}

uint8_t address_flags(const Args &args) { return args.has("compress") ? ADDR_FLAG_COMPRESS_OK : 0; }

std::string make_payload(const Args &args) {
    std::string bytes = given_bytes(args);
    if (args.has("hex")) bytes = parse_hex(bytes);
    if (args.has("app") || args.has("priority") || args.has("compress"))
        bytes = app_message(bytes, static_cast<unsigned>(args.number("priority")));
    if (bytes.size() > TAV_IPC_MESSAGE_MAX)
        throw Problem("a message has at most " + grouped(TAV_IPC_MESSAGE_MAX) + " bytes, this has " +
                          grouped(bytes.size()),
                      "send it as a file: tavctl sendfile");
    return bytes;
}

std::string parse_hex(std::string_view text) {
    const char *remedy = "two digits for each byte; blanks are skipped";
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    std::string digits(text), bytes;
    std::erase_if(digits,
                  [](char c) { return std::string_view(" \t\r\n:,").find(c) != std::string_view::npos; });
    if (const size_t at = digits.find_first_not_of("0123456789abcdefABCDEF"); at != digits.npos)
        throw misuse(std::string("\"") + digits[at] + "\" is not a hexadecimal digit", remedy);
    if (digits.size() % 2 != 0) throw misuse("an odd number of hexadecimal digits", remedy);
    for (const char *at = digits.c_str(); *at; at += 2) {
        unsigned byte = 0;
        std::from_chars(at, at + 2, byte, 16);
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string describe_payload(Record &record, std::string_view payload, const Args &args) {
    const size_t limit = args.has("max-bytes") ? args.number("max-bytes") : kShownBytes;
    const bool app = payload.size() >= TAV_APP_HEADER_SIZE && payload.substr(0, 4) == kAppMark;
    std::string lines;
    record.add("size", payload.size(), "app", app);
    if (app) {
        record.add("priority", static_cast<unsigned char>(payload[kPriorityAt]));
        record.add("body_size", tavipc::load_be32(payload.data() + kLengthAt));
        lines = record.fill("\n  application message, priority {priority}, body of {body_size,} bytes");
        payload.remove_prefix(TAV_APP_HEADER_SIZE);
    }
    const bool text = is_text(payload); // all of it: a cut may fall into a character
    if (text)
        record.add("text", payload);
    else
        record.add("hex", hex_of(payload));
    if (payload.empty()) return lines;
    const bool rows = args.has("hexdump") || !text;
    return lines + "\n" + (rows ? hex_dump(payload, limit, "  ") : text_lines(payload, limit));
}

} // namespace tavctl
