#include "payload.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include <unistd.h>

#include "files.h"
#include "problem.h"
#include "tavipc/tav_compress.h"

namespace tavctl {
namespace {

constexpr char kAppMark[] = "3200";
constexpr size_t kPriorityAt = 15, kLengthAt = 16;

bool is_app(const PayloadOptions &options) { return options.app || options.priority || options.compress; }

uint32_t be32(const char *bytes) {
    uint32_t number = 0;
    for (int i = 0; i < 4; ++i) number = number << 8 | static_cast<unsigned char>(bytes[i]);
    return number;
}

std::string app_message(const std::string &body, unsigned priority) {
    std::string message(TAV_APP_HEADER_SIZE, '\0');
    std::memcpy(message.data(), kAppMark, 4);
    message[kPriorityAt] = static_cast<char>(priority);
    for (size_t i = 0; i < 4; ++i) message[kLengthAt + i] = static_cast<char>(body.size() >> (24 - 8 * i));
    return message + body;
}

// The text, each line behind an indent.
std::string text_lines(std::string_view text, size_t limit) {
    const std::string_view part = text.substr(0, limit);
    std::string lines = "  " + harmless(part);
    while (lines.ends_with('\n')) lines.pop_back();
    for (size_t at = 0; (at = lines.find('\n', at)) != std::string::npos; at += 3)
        lines.replace(at, 1, "\n  ");
    if (part.size() < text.size()) lines += "\n  ... " + grouped(text.size() - part.size()) + " bytes more";
    return lines;
}

std::string given_bytes(const PayloadOptions &options) {
    if (options.data) return *options.data;
    const bool from_input = !options.file || *options.file == "-";
    if (from_input && isatty(STDIN_FILENO))
        std::cerr << "tavctl: reading the payload from the terminal, to its end (Ctrl-D)\n";
    return from_input ? read_descriptor(STDIN_FILENO, "standard input", TAV_IPC_MESSAGE_MAX)
                      : read_file(*options.file, TAV_IPC_MESSAGE_MAX);
}

} // namespace

std::string make_payload(const PayloadOptions &options) {
    std::string bytes = given_bytes(options);
    if (options.hex) bytes = parse_hex(bytes);
    if (is_app(options)) bytes = app_message(bytes, options.priority.value_or(0));
    if (bytes.size() > TAV_IPC_MESSAGE_MAX)
        throw Problem("a message has at most " + grouped(TAV_IPC_MESSAGE_MAX) + " bytes, this has " +
                          grouped(bytes.size()),
                      "send it as a file: tavctl sendfile");
    return bytes;
}

uint8_t address_flags(const PayloadOptions &options) { return options.compress ? ADDR_FLAG_COMPRESS_OK : 0; }

std::string compression_text(const std::string &payload) {
    constexpr size_t kLeast = 148;
    if (payload.size() < kLeast) return ", not compressed: shorter than " + std::to_string(kLeast) + " bytes";
    void *packed = nullptr;
    const int result = tav_msg_compress(payload.data(), &packed, 0);
    const std::unique_ptr<void, void (*)(void *)> owner(packed, std::free);
    if (result == TAV_COMPRESS_NO_GAIN) return ", not compressed: it would not be shorter";
    if (result != TAV_COMPRESS_OK) return ", not compressed: error " + std::to_string(result);
    return ", compressed to " +
           grouped(TAV_APP_HEADER_SIZE + be32(static_cast<const char *>(packed) + kLengthAt)) + " bytes";
}

std::string describe_payload(Record &record, std::string_view payload, const Shown &shown) {
    record.add("size", payload.size());
    std::string head;
    const bool app = payload.size() >= TAV_APP_HEADER_SIZE && payload.substr(0, 4) == kAppMark;
    record.add("app", app);
    if (app) {
        const unsigned priority = static_cast<unsigned char>(payload[kPriorityAt]);
        const uint32_t length = be32(payload.data() + kLengthAt);
        record.add("priority", priority).add("body_size", length);
        head = "  application message, priority " + std::to_string(priority) + ", body of " +
               grouped(length) + " bytes";
        payload.remove_prefix(TAV_APP_HEADER_SIZE);
    }
    const bool text = is_text(payload); // of the whole: a cut must not fall into a character
    if (text)
        record.add("text", payload);
    else
        record.add("hex", hex_of(payload));
    if (payload.empty()) return head;
    if (!head.empty()) head += '\n';
    if (shown.hex || !text) return head + hex_dump(payload, shown.max_bytes, "  ");
    return head + text_lines(payload, shown.max_bytes);
}

void write_raw(std::string_view payload) {
    std::cout.write(payload.data(), static_cast<std::streamsize>(payload.size()));
    std::cout.flush();
}

} // namespace tavctl
