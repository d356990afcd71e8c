// tavipc-attack - how much memory and how many descriptors a hostile peer can make a module hold. Each attack
// gets a new module process, which must answer afterwards. The growth of its peak memory, the messages that
// arrived whole and its descriptors are printed beside their bounds. The exit status is 1 when one is broken.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

#include "installation.h"
#include "ipc/wire.h"
#include "tavipc/tav_compress.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kMany = 100'000;
constexpr uint32_t kFull = 64'000;        // bytes: payload of a fragment
constexpr uint32_t kLargest = 65'000'000; // bytes: the largest message, nearly
// Promised for unfinished messages, a largest message under delivery, and the heap.
constexpr long kMost_mib = 512 + 62 + 18;

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

class Victim {
  public:
    unsigned sent = 0; // datagrams

    Victim() {
        place_.allow({"victim"});
        module_.ask("descriptors 1024", "done");
        module_.ask("accept victim", "opened ");
        const std::string path = place_.sockets() / "victim";
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            fail("connect");
        resident_before_ = kib("VmRSS:");
    }
    ~Victim() {
        std::error_code gone; // the module may close a descriptor meanwhile
        for (const auto &entry : fs::directory_iterator(proc() / "fd"))
            if (const auto file = fs::read_symlink(entry, gone); file.string().starts_with("/tmp/ipc_file."))
                fs::remove(file, gone);
    }

    void send(Datagram datagram) {
        datagram.header.size = static_cast<uint32_t>(datagram.payload.size());
        datagram.header.magic = tav_ipc_hdr_magic(&datagram.header);
        const std::string bytes(reinterpret_cast<const char *>(&datagram.header), sizeof datagram.header);
        const std::string whole = bytes + datagram.payload;
        if (::send(fd_.get(), whole.data(), whole.size(), MSG_NOSIGNAL) < 0) fail("the module is gone");
        ++sent;
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
    // How many of them arrived, up to the first that did not.
    uint32_t arrived(uint32_t size) const {
        const std::string end = ' ' + std::to_string(size) + ' ';
        uint32_t i = 0;
        while (module_.heard("msg attacker " + std::to_string(i + 1) + end)) ++i;
        return i;
    }
    void settle() { // waits until everything that was sent has been handled
        Datagram last(0, "alive");
        last.header.cmd = 4711;
        send(last);
        module_.expect("msg attacker 4711 5 ");
    }
    long grown_mib() const { return (kib("VmHWM:") - resident_before_) / 1024; }
    long descriptors() const { return std::distance(fs::directory_iterator(proc() / "fd"), {}); }

  private:
    fs::path proc() const { return fs::path("/proc") / std::to_string(module_.pid()); }
    long kib(const std::string &field) const {
        std::ifstream status(proc() / "status");
        for (std::string word; status >> word;)
            if (word == field) return status >> word, std::stol(word);
        fail("/proc/PID/status");
    }

    Installation place_{{}};
    Process module_ = place_.start("victim", {"TAV_LOG_LEVEL=-1"});
    tavipc::UniqueFd fd_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    long resident_before_ = 0;
};

const std::string kPiece(kFull, 'f'), kText(200, 'x'); // a fragment's payload, and some text

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
Datagram claim(uint32_t i) { return Datagram::fragment(i, 0, i % 2 ? 4'294'967'235 : kLargest, kPiece); }
Datagram two_of_three(uint32_t i) { return Datagram::fragment(i / 2, i % 2, 128'001, kPiece); }
Datagram scattered(uint32_t i) { return Datagram::fragment(i / 60, i % 60 * 17 % 1015, kLargest, kPiece); }
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
    return {kCompressed, std::string("3200\0\0\0\4\0\0\0\0\0\0\0\0\0\0\0\xCC\xFF\xFF\xFF\xFF", 24) + kText};
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
// Whole messages, each with a fragment behind it whose message could reuse the buffer, and never ends.
template <uint32_t kCount, uint32_t kSize, uint32_t kClaim> void send_strays(Victim &victim) {
    for (uint32_t i = 0; i < kCount; ++i) {
        victim.send_interleaved(1, std::string(kSize, 'f'));
        victim.send(Datagram::fragment(1000 + i, 0, kClaim, kPiece));
        victim.settle();
    }
}
template <uint32_t kCount, uint32_t kSize> void send_many(Victim &victim) {
    victim.send_interleaved(kCount, std::string(kSize, 'f'));
}

const Attack attacks[] = {
    {"100,000 fragments that claim 4 GiB or 65 MB", kMost_mib, 32, send_each(kMany, claim)},
    {"100,000 sets of two fragments of three", kMost_mib, 32, send_each(2 * kMany, two_of_three)},
    {"1,000 sets of 60 scattered pieces of 65 MB", kMost_mib, 32, send_each(60'000, scattered)},
    {"24 messages of 65 MB, each with a stray piece", 128, 32, send_strays<24, kLargest, 1'100'000>},
    {"1,500 messages of 0.9 MB, with stray pieces", kMost_mib, 32, send_strays<1500, 900'000, 900'000>},
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
    setlinebuf(stdout);
    std::printf("%-46s %9s %5s %6s %12s  %s\n", "", "datagrams", "MiB", "bound", "descriptors", "arrived");
    for (const Attack &attack : attacks) {
        Victim victim;
        attack.run(victim);
        victim.settle();
        const uint32_t arrived = victim.arrived(attack.size);
        const long mib = victim.grown_mib(), descriptors = victim.descriptors();
        const bool holds =
            mib <= attack.most_mib && descriptors <= attack.most_descriptors && arrived >= attack.must_arrive;
        std::printf("%-46s %9u %5ld %6ld %6ld / %3ld  %u / %u%s\n", attack.what, victim.sent, mib,
                    attack.most_mib, descriptors, attack.most_descriptors, arrived, attack.must_arrive,
                    holds ? "" : "  EXCEEDED");
        failed += !holds;
    }
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
