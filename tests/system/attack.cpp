// tavipc-attack - what a peer can make a module hold that sends it what it likes. Every attack meets a fresh
// module process, which must answer afterwards; its peak memory and descriptors are printed beside the bounds
// that it promises. Exit status 1 when one does not hold.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "installation.h"
#include "tavipc/tav_compress.h"
#include "tavipc/tav_ipc.h"

using namespace tavipc::stage;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kMany = 100'000;
constexpr uint32_t kFull = 64'000; // payload of a fragment

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

// What a datagram says, apart from the check value, which is always right.
struct Datagram {
    tav_ipc_hdr_st header{};
    std::string payload;

    Datagram(uint16_t flags, std::string data) : payload(std::move(data)) {
        std::strcpy(header.dest.name, "victim");
        std::strcpy(header.src.name, "attacker");
        header.src.loc = header.dest.loc = 2;
        header.flags = flags;
    }
    static Datagram fragment(uint32_t group, uint32_t sequence, uint32_t size, uint32_t claimed) {
        Datagram result(0, std::string(size, 'f'));
        result.header.src.hostid = group;
        result.header.frag_orig = claimed;
        result.header.frag_word[0] = static_cast<uint8_t>(1 | sequence << 1);
        result.header.frag_word[1] = static_cast<uint8_t>(sequence >> 7);
        return result;
    }
};

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
        if (++sent_ % 1000 == 0) descriptors_ = std::max(descriptors_, descriptors());
    }
    // Waits until everything that was sent has been handled.
    void settle() {
        Datagram last(0, "alive");
        last.header.cmd = 4711;
        send(last);
        module_.expect("msg attacker 4711 5 ");
        descriptors_ = std::max(descriptors_, descriptors());
    }
    long grown_kib() const { return kib("VmHWM:") - resident_before_; }
    long most_descriptors() const { return descriptors_; }
    unsigned sent() const { return sent_; }

  private:
    fs::path proc() const { return fs::path("/proc") / std::to_string(module_.pid()); }
    long kib(const std::string &field) const {
        std::ifstream status(proc() / "status");
        for (std::string word; status >> word;)
            if (word == field) return status >> word, std::stol(word);
        fail("/proc/PID/status");
    }
    long descriptors() const { return std::distance(fs::directory_iterator(proc() / "fd"), {}); }

    Installation place_{{}};
    Process module_ = place_.start("victim", {"TAV_LOG_LEVEL=-1"});
    int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    long resident_before_ = 0;
    long descriptors_ = 0;
    unsigned sent_ = 0;
};

std::string app_message(uint16_t method, const std::string &body) {
    std::string header(20, '\0');
    header.replace(0, 4, "3200");
    header[7] = static_cast<char>(method);
    for (int i = 0; i < 4; ++i) header[16 + i] = static_cast<char>(body.size() >> (24 - 8 * i));
    return header + body;
}

std::string zeros_in_an_envelope(uint32_t size) {
    const std::string zeros(size, '\0');
    void *envelope = nullptr;
    uint32_t length = 0;
    if (tav_compress(zeros.data(), size, &envelope, &length, 0) != TAV_COMPRESS_OK) fail("tav_compress");
    const std::string result(static_cast<char *>(envelope), length);
    std::free(envelope);
    return result;
}

constexpr uint16_t kCompressed = IPC_FLAG_APP_MSG | IPC_FLAG_COMPRESSED;

struct Attack {
    const char *what;
    long most_mib;
    long most_descriptors;
    std::function<void(Victim &)> run;
};

const Attack attacks[] = {
    {"100,000 fragments that each claim 4 GiB", 128, 32,
     [](Victim &victim) {
         for (uint32_t i = 0; i < kMany; ++i) victim.send(Datagram::fragment(i, 0, kFull, 4'294'967'235));
     }},
    {"100,000 fragments that each claim 65 MB", 128, 32,
     [](Victim &victim) {
         for (uint32_t i = 0; i < kMany; ++i) victim.send(Datagram::fragment(i, 1015, 1, 1015 * kFull + 1));
     }},
    {"100,000 sets of two fragments of three", 640, 32,
     [](Victim &victim) {
         for (uint32_t i = 0; i < 2 * kMany; ++i)
             victim.send(Datagram::fragment(i / 2, i % 2, kFull, 2 * kFull + 1));
     }},
    {"1,000 sets of 60 scattered pieces of 65 MB", 640, 32,
     [](Victim &victim) {
         for (uint32_t i = 0; i < 60'000; ++i)
             victim.send(Datagram::fragment(i / 60, i % 60 * 17 % 1015, kFull, 1015 * kFull + 1));
     }},
    {"100,000 envelopes that claim 4 GiB", 16, 32,
     [](Victim &victim) {
         const std::string lie = app_message(4, "\xFF\xFF\xFF\xFF" + std::string(200, 'x'));
         for (uint32_t i = 0; i < kMany; ++i) victim.send({kCompressed, lie});
     }},
    {"20 times 64 MiB of zeros in 65 kB", 80, 32,
     [](Victim &victim) {
         std::string envelope = zeros_in_an_envelope(64u << 20);
         const uint32_t size = static_cast<uint32_t>(envelope.size()) + 20;
         const std::string message = app_message(4, envelope);
         for (uint32_t i = 0; i < 20; ++i)
             for (uint32_t at = 0, sequence = 0; at < size; at += kFull, ++sequence) {
                 Datagram part = Datagram::fragment(i, sequence, std::min(kFull, size - at), size);
                 part.payload = message.substr(at, kFull);
                 part.header.flags = kCompressed;
                 victim.send(part);
             }
     }},
    {"100,000 file ids", 32, 600,
     [](Victim &victim) {
         for (uint32_t i = 0; i < kMany; ++i) {
             Datagram chunk(IPC_FLAG_FILE, "x");
             chunk.header.cmd = i;
             victim.send(chunk);
         }
     }},
    {"100,000 names that want an answer", 128, 320,
     [](Victim &victim) {
         for (uint32_t i = 0; i < kMany; ++i) {
             Datagram probe(IPC_FLAG_PROBE | IPC_FLAG_NEED_ACK, "");
             std::snprintf(probe.header.src.name, sizeof probe.header.src.name, "n%u", i);
             victim.send(probe);
         }
     }},
};

} // namespace

int main() {
    int failed = 0;
    std::printf("%-42s %10s %8s %8s %12s\n", "", "datagrams", "MiB", "bound", "descriptors");
    for (const Attack &attack : attacks) {
        Victim victim;
        attack.run(victim);
        victim.settle();
        const long mib = victim.grown_kib() / 1024, descriptors = victim.most_descriptors();
        const bool holds = mib <= attack.most_mib && descriptors <= attack.most_descriptors;
        std::printf("%-42s %10u %8ld %8ld %6ld / %ld%s\n", attack.what, victim.sent(), mib, attack.most_mib,
                    descriptors, attack.most_descriptors, holds ? "" : "  EXCEEDED");
        std::fflush(stdout);
        failed += !holds;
    }
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
