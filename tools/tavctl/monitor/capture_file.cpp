// pcapng in the byte order of this machine. A packet is a module's record as it came.
#include "monitor/monitor.h"

namespace tavctl {
namespace {

enum Block : uint32_t { kSection = 0x0A0D0D0A, kInterface = 1, kStatistics = 5, kPacket = 6 };
enum Option : uint16_t {
    kEnd = 0,
    kComment = 1,
    kName = 2,        // of an interface
    kDirection = 2,   // of a packet: 1 inbound, 2 outbound
    kApplication = 4, // of a section
    kReceived = 4,    // of statistics
    kMissed = 5,
    kResolution = 9 // of the times of an interface: the exponent, 10^-9 s
};
constexpr uint16_t kLinkType = 147;        // USER0
constexpr size_t kBufferSize = 256 * 1024; // bytes: a write for several packets

template <class... Numbers> std::string bytes_of(const Numbers &...numbers) {
    std::string bytes;
    (bytes.append(reinterpret_cast<const char *>(&numbers), sizeof numbers), ...);
    return bytes;
}

std::string_view padding_of(std::string_view bytes) { return std::string_view("\0\0\0", -bytes.size() % 4); }

std::string option(Option code, std::string_view value) {
    return bytes_of(code, static_cast<uint16_t>(value.size())).append(value).append(padding_of(value));
}

// A point in time in two words, the upper one first.
std::string time_of(uint64_t ns) {
    return bytes_of(static_cast<uint32_t>(ns >> 32), static_cast<uint32_t>(ns));
}

} // namespace

CaptureFile::CaptureFile(const std::string &path, const std::vector<std::string> &interfaces)
    : path_(path == "-" ? "standard output" : path) {
    // Messages may be secret, so only its owner may read the file. Opening a pipe waits for its reader.
    if (path != "-") owned_ = UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (path != "-" && !owned_) throw system_problem("cannot write " + path);
    block(kSection, {bytes_of(uint32_t{0x1A2B3C4D}, uint16_t{1}, uint16_t{0}, int64_t{-1}),
                     option(kApplication, "tavctl " TAVIPC_VERSION), option(kEnd, {})});
    for (const std::string &name : interfaces)
        block(kInterface, {bytes_of(kLinkType, uint16_t{0}, uint32_t{0}), option(kName, name),
                           option(kResolution, "\x09"), option(kEnd, {})});
    flush();
}

void CaptureFile::block(uint32_t type, std::initializer_list<std::string_view> parts) {
    auto size = static_cast<uint32_t>(3 * sizeof(uint32_t));
    for (const std::string_view part : parts) size += static_cast<uint32_t>(part.size());
    pending_ += bytes_of(type, size);
    for (const std::string_view part : parts) pending_ += part;
    pending_ += bytes_of(size);
    if (pending_.size() > kBufferSize) flush();
}

void CaptureFile::add(const Copy &copy) {
    const auto captured = static_cast<uint32_t>(copy.bytes.size());
    // A datagram that is shorter than a header was captured whole.
    const size_t front = copy.record.record_size + sizeof copy.header;
    const auto whole = static_cast<uint32_t>(captured < front ? captured : front + copy.header.size);
    const uint32_t direction = copy.record.event >= TAV_IPC_MONITOR_RECEIVED ? 1 : 2;
    block(kPacket, {bytes_of(uint32_t{copy.listener}), time_of(copy.record.time_ns),
                    bytes_of(captured, std::max(captured, whole)), copy.bytes, padding_of(copy.bytes),
                    option(kComment, outcome_text(copy.record.event, copy.record.reason, copy.record.tries)),
                    option(kDirection, bytes_of(direction)), option(kEnd, {})});
}

void CaptureFile::add_statistics(unsigned interface, uint64_t packets, uint64_t missed) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto time_ns =
        static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
    block(kStatistics, {bytes_of(uint32_t{interface}), time_of(time_ns), option(kReceived, bytes_of(packets)),
                        option(kMissed, bytes_of(missed)), option(kEnd, {})});
}

void CaptureFile::flush() {
    const int fd = owned_ ? owned_.get() : STDOUT_FILENO;
    while (!pending_.empty() && std::cout) {
        const ssize_t written = write(fd, pending_.data(), pending_.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EPIPE)
            return void(std::cout.setstate(std::ios::badbit)); // no reader is left
        if (written < 0) throw system_problem("cannot write " + path_);
        pending_.erase(0, static_cast<size_t>(written));
    }
}

} // namespace tavctl
