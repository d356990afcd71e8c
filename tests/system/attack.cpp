// tavipc-attack - how much memory and how many descriptors a hostile peer can make a module hold. Each attack
// gets a new module process, which must answer afterwards. The growth of its peak memory, the messages that
// arrived whole and its descriptors are printed beside their bounds. The exit status is 1 when one is broken.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "installation.h"
#include "ipc/wire.h"
#include "tavipc/tav_compress.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kMany = 100'000;
constexpr uint32_t kFull = 64'000;               // bytes: payload of a fragment
constexpr uint32_t kLargest = 65'000'000;        // bytes: the largest message, nearly
constexpr long kBound_mib = 512;                 // promised for the unfinished messages of an endpoint
constexpr long kMost_mib = kBound_mib + 62 + 18; // with a largest message under delivery, and the heap

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

// A datagram to the module. Its check value is always right.
struct Datagram {
    tav_ipc_hdr_st header{};
    std::string payload;

    Datagram(uint16_t flags, std::string data) : payload(std::move(data)) {
        std::strcpy(header.dest.name, "victim");
        std::strcpy(header.src.name, "attacker");
        header.src.loc = header.dest.loc = 2;
        header.flags = flags;
    }
    static Datagram fragment(uint32_t group, uint32_t sequence, uint32_t claimed, std::string data) {
        Datagram result(0, std::move(data));
        result.header.src.hostid = group;
        result.header.frag_orig = claimed;
        tavipc::set_fragment(result.header, static_cast<uint16_t>(sequence));
        return result;
    }
};

// As the module reports a payload: FNV-1a.
uint64_t digest(const std::string &payload) {
    uint64_t sum = 0xCBF29CE484222325u;
    for (const char byte : payload) sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001B3u;
    return sum;
}

class Victim {
  public:
    Victim() {
        place_.allow({"victim"});
        module_.ask("descriptors 1024", "done");
        module_.ask("accept victim", "opened ");
        const std::string path = place_.sockets() / "victim";
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) fail("connect");
        resident_before_ = kib("VmRSS:");
    }
    ~Victim() {
        for (const auto &entry : fs::directory_iterator(proc() / "fd")) {
            std::error_code gone;
            const std::string target = fs::read_symlink(entry, gone);
            if (target.starts_with("/tmp/ipc_file.")) fs::remove(target, gone);
        }
        close(fd_);
    }

    void send(Datagram datagram) {
        datagram.header.size = static_cast<uint32_t>(datagram.payload.size());
        datagram.header.magic = tav_ipc_hdr_magic(&datagram.header);
        const std::string bytes(reinterpret_cast<const char *>(&datagram.header), sizeof datagram.header);
        const std::string whole = bytes + datagram.payload;
        if (::send(fd_, whole.data(), whole.size(), MSG_NOSIGNAL) < 0) fail("the module is gone");
        if (++sent % 1000 == 0) count_descriptors();
    }
    // Sends a message several times, numbered from 1, with the fragments interleaved.
    void send_interleaved(uint32_t count, const std::string &message, uint16_t flags = 0) {
        for (uint32_t at = 0; at < message.size(); at += kFull)
            for (uint32_t i = 1; i <= count; ++i) {
                Datagram part = Datagram::fragment(i, at / kFull, static_cast<uint32_t>(message.size()),
                                                   message.substr(at, kFull));
                part.header.flags = flags;
                part.header.cmd = i;
                send(part);
            }
    }
    // How many of them arrived unchanged, up to the first that did not.
    uint32_t arrived(const std::string &message) {
        std::map<uint32_t, uint64_t> digests;
        for (const auto &event : module_.take())
            if (const auto w = words(event); w.size() == 6 && w[0] == "msg")
                digests[static_cast<uint32_t>(std::stoul(w[2]))] = std::stoull(w[5], nullptr, 16);
        uint32_t count = 0;
        while (digests[count + 1] == digest(message)) ++count;
        return count;
    }
    // Waits until everything that was sent has been handled.
    void settle() {
        Datagram last(0, "alive");
        last.header.cmd = 4711;
        send(last);
        module_.expect("msg attacker 4711 5 ");
        count_descriptors();
    }
    long grown_mib() const { return (kib("VmHWM:") - resident_before_) / 1024; }
    unsigned sent = 0;
    long most_descriptors = 0;

  private:
    fs::path proc() const { return fs::path("/proc") / std::to_string(module_.pid()); }
    long kib(const std::string &field) const {
        std::ifstream status(proc() / "status");
        for (std::string word; status >> word;)
            if (word == field) return status >> word, std::stol(word);
        fail("/proc/PID/status");
    }
    void count_descriptors() {
        most_descriptors =
            std::max(most_descriptors, std::distance(fs::directory_iterator(proc() / "fd"), {}));
    }

    Installation place_{{}};
    Process module_ = place_.start("victim", {"TAV_LOG_LEVEL=-1"});
    int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    long resident_before_ = 0;
};

const std::string kPiece(kFull, 'f'); // a fragment's payload

// Text whose pieces differ.
std::string numbers(uint32_t size) {
    std::string text;
    for (uint32_t i = 0; text.size() < size; ++i) text += std::to_string(i) + ' ';
    return text.substr(0, size);
}

constexpr uint16_t kCompressed = IPC_FLAG_APP_MSG | IPC_FLAG_COMPRESSED;

struct Attack {
    const char *what;
    long most_mib, most_descriptors;
    std::function<void(Victim &)> run;
    uint32_t must_arrive = 0, size = 0; // messages; bytes of each
};

// Sends what a function makes of 0, 1, 2 and so on.
auto send_each(uint32_t count, Datagram (*make)(uint32_t)) {
    return [=](Victim &victim) {
        for (uint32_t i = 0; i < count; ++i) victim.send(make(i));
    };
}
Datagram huge_claim(uint32_t i) { return Datagram::fragment(i, 0, 4'294'967'235, kPiece); }
Datagram large_claim(uint32_t i) { return Datagram::fragment(i, 1015, 1015 * kFull + 1, "f"); }
Datagram two_of_three(uint32_t i) { return Datagram::fragment(i / 2, i % 2, 128'001, kPiece); }
Datagram scattered(uint32_t i) { return Datagram::fragment(i / 60, i % 60 * 17 % 1015, kLargest, kPiece); }
Datagram stray_piece(uint32_t i) { return Datagram::fragment(1000 + i, 0, 1'000'000, kPiece); }
Datagram file_chunk(uint32_t i) {
    Datagram chunk(IPC_FLAG_FILE, "x");
    chunk.header.cmd = i;
    return chunk;
}
Datagram probe(uint32_t i) {
    Datagram result(IPC_FLAG_PROBE | IPC_FLAG_NEED_ACK, "");
    std::snprintf(result.header.src.name, sizeof result.header.src.name, "n%u", i);
    return result;
}
Datagram false_envelope(uint32_t) { // method 4, a body of 204 bytes, and 4 GiB that are said to be in it
    static constexpr char kHeader[] = "3200\0\0\0\4\0\0\0\0\0\0\0\0\0\0\0\xCC\xFF\xFF\xFF\xFF";
    return {kCompressed, std::string(kHeader, 24) + std::string(200, 'x')};
}
void send_zeros(Victim &victim) {
    std::string zeros(20 + (64u << 20), '\0');
    zeros.replace(0, 4, "3200")[16] = 4; // the body's length, big-endian
    void *out = nullptr;
    if (tav_msg_compress(zeros.data(), &out, 0) != TAV_COMPRESS_OK) fail("tav_msg_compress");
    const std::string packed(static_cast<char *>(out), 20 + tavipc::app_body_length(out));
    std::free(out);
    victim.send_interleaved(20, packed, kCompressed);
}
void send_stray_claims(Victim &victim) {
    const std::string largest = numbers(kLargest);
    for (uint32_t i = 0; i < 24; ++i) {
        victim.send_interleaved(1, largest);
        victim.send(Datagram::fragment(1000 + i, 0, 1'100'000, kPiece));
        victim.settle();
    }
}
void send_stray_pieces(Victim &victim) {
    victim.send_interleaved(500, numbers(1'000'000));
    victim.settle();
    send_each(1500, stray_piece)(victim);
}
template <uint32_t kCount, uint32_t kSize> void send_many(Victim &victim) {
    victim.send_interleaved(kCount, numbers(kSize));
}

const Attack attacks[] = {
    {"100,000 fragments that each claim 4 GiB", 128, 32, send_each(kMany, huge_claim)},
    {"100,000 fragments that each claim 65 MB", 128, 32, send_each(kMany, large_claim)},
    {"100,000 sets of two fragments of three", kMost_mib, 32, send_each(2 * kMany, two_of_three)},
    {"1,000 sets of 60 scattered pieces of 65 MB", kMost_mib, 32, send_each(60'000, scattered)},
    {"24 messages of 65 MB, each with a stray piece", 128, 32, send_stray_claims},
    {"500 messages of 1 MB, then 1,500 stray pieces", kMost_mib, 32, send_stray_pieces},
    {"10 interleaved messages of 65 MB", kMost_mib, 32, send_many<10, kLargest>, 8, kLargest},
    {"40 interleaved messages of 16 MB", kMost_mib, 32, send_many<40, 16'000'000>, 32, 16'000'000},
    {"100,000 envelopes that claim 4 GiB", 16, 32, send_each(kMany, false_envelope)},
    {"20 times 64 MiB of zeros in 65 kB", 80, 32, send_zeros},
    {"100,000 file ids", 32, 600, send_each(kMany, file_chunk)},
    {"100,000 names that want an answer", 128, 320, send_each(kMany, probe)},
};

} // namespace

int main() {
    int failed = 0;
    std::printf("%-46s %9s %5s %6s %12s  %s\n", "", "datagrams", "MiB", "bound", "descriptors", "arrived");
    for (const Attack &attack : attacks) {
        Victim victim;
        attack.run(victim);
        victim.settle();
        const uint32_t arrived = victim.arrived(numbers(attack.size));
        const long mib = victim.grown_mib(), descriptors = victim.most_descriptors;
        const bool holds =
            mib <= attack.most_mib && descriptors <= attack.most_descriptors && arrived >= attack.must_arrive;
        std::printf("%-46s %9u %5ld %6ld %6ld / %3ld  %u / %u%s\n", attack.what, victim.sent, mib,
                    attack.most_mib, descriptors, attack.most_descriptors, arrived, attack.must_arrive,
                    holds ? "" : "  EXCEEDED");
        std::fflush(stdout);
        failed += !holds;
    }
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
