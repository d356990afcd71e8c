#include <charconv>
#include <cstdlib>

#include "common/big_endian.h"
#include "common/facts.h"
#include "common/owned.h"
#include "module/module.h"
#include "tavipc/tav_compress.h"

namespace tavctl {
namespace {

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

} // namespace

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

std::string compression_text(const std::string &payload) {
    if (payload.size() < tavipc::kCompressMinimum)
        return ", not compressed: shorter than " + std::to_string(tavipc::kCompressMinimum) + " bytes";
    void *packed = nullptr;
    const int result = tav_msg_compress(payload.data(), &packed, 0);
    const tavipc::MallocPtr<void> owner(packed);
    if (result == TAV_COMPRESS_NO_GAIN) return ", not compressed: it would not be shorter";
    if (result != TAV_COMPRESS_OK) return ", not compressed: error " + std::to_string(result);
    return ", compressed to " +
           grouped(TAV_APP_HEADER_SIZE + tavipc::load_be32(static_cast<const char *>(packed) + kLengthAt)) +
           " bytes";
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

void write_raw(std::string_view payload) {
    std::cout.write(payload.data(), static_cast<std::streamsize>(payload.size()));
    std::cout.flush();
}

} // namespace tavctl
