// The life of up to four endpoints in a fake world, spelled out by the input: datagrams that reach them,
// sends, exchanges and files, their completions, time; and inside each callback the next step of the same
// input.
//
// Most datagrams get the length and check value that they should have, so that the input reaches what lies
// behind those tests. Temporary files live in memory; a process may have ten descriptors.
#include <algorithm>
#include <memory>
#include <set>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "checked_zlib.h"
#include "endpoint_world.h"
#include "input.h"
#include "tavipc/tav_compress.h"

namespace {

constexpr int kSlots = 4;
constexpr size_t kOwn = 1000; // bytes of the input in a fragment
constexpr unsigned kMaxSteps = 300, kMaxDepth = 4;

struct Files {
    unsigned made = 0;
    std::set<std::string> live{}; // paths of temporary files not removed yet
} files;
bool trace_switch;
// What is sent as a file: of less than one chunk, of two.
const std::string small_file = "/proc/self/fd/" + std::to_string(fuzz::memory_file("hello"));
const std::string large_file = "/proc/self/fd/" + std::to_string(fuzz::memory_file(std::string(64'001, 'l')));

} // namespace

extern "C" {

// The tables' hash key: the same in every run.
__attribute__((visibility("default"))) ssize_t getrandom(void *buffer, size_t size, unsigned) {
    std::memset(buffer, 7, size);
    return static_cast<ssize_t>(size);
}
int getrlimit(__rlimit_resource_t resource, rlimit *limit) noexcept {
    if (resource == RLIMIT_NOFILE) return *limit = {10, 10}, 0;
    return static_cast<int>(syscall(SYS_getrlimit, resource, limit));
}
int mkstemp(char *path) {
    const int fd = memfd_create("received", MFD_CLOEXEC);
    std::snprintf(path + strlen(path) - 6, 7, "%06u", ++files.made % 1'000'000);
    files.live.insert(path);
    return fd;
}
int unlink(const char *path) noexcept {
    if (files.live.erase(path)) return 0;
    FUZZ_CHECK(strncmp(path, "/tmp/ipc_file.", 14) != 0); // removed twice
    return static_cast<int>(syscall(SYS_unlink, path));
}
int open(const char *path, int flags, ...) {
    if (strcmp(path, "/tmp/ipc_debug") == 0) path = trace_switch ? "/dev/null" : "/nonexistent/x";
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0600));
}

} // extern "C"

namespace {

class Life {
  public:
    explicit Life(fuzz::Input &in) : in_(in) {
        current = this;
        w_ = fake::World{};
        latest_ = w_.clock.wall_s;
        tavipc::process_state() = {};
        static uint64_t days = 0; // rate limits outlive an input
        w_.clock.ticks_ms += ++days * 86'400'000;
        const uint8_t mode = in_.u8();
        flooded_ = mode != 255; // it is slow
        w_.log.threshold = mode & 1 ? 4 : 1;
        trace_switch = mode & 2;
        if (mode & 4) w_.deployment.location = mode & 8 ? 4 : 1;
        if (mode & 16) load_ipc_proxy_conf(nullptr);
        if (mode & 32) w_.deployment.deploy_type = "agent";
        for (const uint8_t how : {0, 1}) open_endpoint(how, how);
    }

    void run() {
        for (unsigned i = 0; i < kMaxSteps && !in_.empty(); ++i) step();
        in_ = fuzz::Input(nullptr, 0);
        w_.event.fail_timers = w_.memory.fail_push = 0;
        for (tav_ipc_st *&slot : slots_) destroy(slot);
        w_.event.advance(1); // exchanges that could not be sent
        for (const auto &e : exchanges_) FUZZ_CHECK(e->completions == 1);
        FUZZ_CHECK(w_.event.sockets.empty() && w_.event.pending() == 0);
        expire_files();
        FUZZ_CHECK(w_.event.timers.empty());
        w_ = fake::World{}; // what an input leaves would be looked through for leaks after each
    }

  private:
    struct Exchange {
        int completions = 0;
    };

    // --- what an input says

    void step() {
        w_.event.fail_timers = w_.memory.fail_push = 0; // exchanges end the process when they fail
        switch (in_.u8() % 16) {
        case 0:
            return;
        default:
            return composed_datagram();
        case 7:
            return raw_datagram();
        case 8:
            return pass_time();
        case 9:
            return complete();
        case 10:
            return begin_exchange();
        case 11:
            return send();
        case 12:
            return relay();
        case 13: {
            const uint8_t slot = in_.u8() % kSlots;
            return slots_[slot] ? destroy(slots_[slot]) : open_endpoint(slot, in_.u8());
        }
        case 14:
            return respond();
        case 15:
            if (const uint8_t how = in_.u8(); how < 255)
                w_.event.fail_send = how % 4;
            else
                return flood();
            w_.event.fail_create = in_.u8() % 8;
            return;
        }
    }
    void act() {
        if (depth_ >= kMaxDepth || in_.empty()) return;
        ++depth_;
        step();
        --depth_;
    }

    tav_ipc_st *any_endpoint() { return slots_[in_.u8() % kSlots]; }
    tav_addr_st any_address() {
        static constexpr std::string_view kNames[] = {"p0", "p1", "e0", "e1", "", "a/b", "e2", "0123456789"};
        const uint8_t which = in_.u8();
        const uint8_t here = static_cast<uint8_t>(w_.deployment.location), other = which & 128 ? 8 : 13;
        return address(kNames[which & 7], which & 8 ? other : here, which & 16 ? ADDR_FLAG_COMPRESS_OK : 0,
                       which & 32 ? 4711 : 55);
    }
    std::string body() {
        const uint8_t size = in_.u8(), times = in_.u8();
        const std::string part = in_.text(size);
        if (part.empty()) return {};
        std::string text;
        for (int i = times > 240 ? 70'000 / static_cast<int>(part.size()) : times % 32; i >= 0; --i)
            text += part;
        return text;
    }
    std::string application(const std::string &text, char method = 0) {
        std::string whole = app_message(20 + text.size(), in_.u8(), method);
        return whole.replace(20, text.size(), text);
    }
    static std::string compressed(const std::string &plain) {
        void *out = nullptr;
        FUZZ_CHECK(tav_msg_compress(plain.data(), &out, TAV_COMPRESS_FORCE) == TAV_COMPRESS_OK);
        const tavipc::MallocPtr<void> owner(out);
        return {static_cast<char *>(out), 20 + tavipc::app_body_length(out)};
    }

    // --- what endpoints get

    void composed_datagram() {
        tav_ipc_st *&to = slots_[in_.u8() % kSlots]; // callbacks may replace it
        Datagram d{"", {address("e0"), any_address(), 0, in_.u16(), 0, 0, 0, 0, {}, 0, 0}, ""};
        const uint8_t id = in_.u8();
        d.header.reqid = id < 128 ? tavipc::process_state().last_reqid - id : id;
        d.header.cmd = in_.u8() & 7;
        std::string plain;
        const uint8_t shape = in_.u8(), flaw = in_.u8();
        if (shape & 64) { // the status of an acknowledgement
            d.payload = bytes_of(static_cast<int32_t>(static_cast<int8_t>(in_.u8())));
            plain = d.payload;
        } else {
            plain = body();
            const bool pack = (shape & 3) == 3;
            if (shape & 3) plain = application(plain, !pack && shape & 8 ? 4 : 0);
            d.payload = pack ? compressed(plain) : plain;
        }
        const bool packed = d.payload != plain;
        if (packed) d.header.flags |= IPC_FLAG_COMPRESSED;
        fill_ = '\0';
        if (shape & 4) make_fragment(d);
        mixed_ |= shape & 4 && (flaw >= 192 || d.header.flags & IPC_FLAG_COMPRESSED);
        const int burst = shape & 4 && shape & 16 ? 40 : 1; // so many fragments in a row
        const bool sound = flaw < 192 && !(shape & 4) && packed == !!(d.header.flags & IPC_FLAG_COMPRESSED);
        const int status = flaw == 255 ? in_.u8() % 6 : 0;
        deliver(to, flaw < 192 ? d.bytes() : spoilt(d, flaw), sound ? &plain : nullptr, status);
        for (int i = 1; i < burst; ++i) {
            place(d, tavipc::fragment_sequence(d.header) + 1);
            deliver(to, d.bytes());
        }
    }

    // Gives the datagram a place in a larger message, and the length that belongs there.
    void make_fragment(Datagram &d) {
        constexpr uint32_t kWhole[] = {
            0,          1,          64'000,      64'001,        128'000,       150'000,  65'471'999,
            65'536'000, 65'536'001, 200'000'000, 4'294'967'235, 4'294'967'236, 2'500'000};
        const uint8_t which = in_.u8();
        const uint16_t sequence = which & 16 ? in_.u16() & 0x3FF : in_.u8() & 3;
        d.header.frag_id = in_.u8() & 3;
        d.header.frag_orig = which & 32   ? static_cast<uint32_t>(d.payload.size())
                             : which & 64 ? in_.u32()
                                          : kWhole[(which & 15) % std::size(kWhole)];
        if (which & 32)
            tavipc::set_fragment(d.header, 0);
        else
            place(d, sequence);
    }
    // Fragments of a message end with its letter.
    void place(Datagram &d, int sequence) {
        tavipc::set_fragment(d.header, static_cast<uint16_t>(sequence));
        const uint64_t offset = uint64_t{tavipc::fragment_sequence(d.header)} * 64'000;
        const uint64_t left = d.header.frag_orig > offset ? d.header.frag_orig - offset : 0;
        fill_ = static_cast<char>('a' + d.header.frag_id + (d.header.src.hostid == 55 ? 0 : 4));
        d.payload.resize(std::min(d.payload.size(), kOwn));
        d.payload.resize(static_cast<size_t>(std::min<uint64_t>(left, 64'000)), fill_);
    }

    std::string spoilt(Datagram &d, uint8_t flaw) {
        const uint16_t at = in_.u16();
        std::string bytes = d.bytes();
        switch (flaw % 6) {
        case 0:
            bytes[at % bytes.size()] ^= static_cast<char>(in_.u8());
            break;
        case 1:
            bytes.resize(at % bytes.size());
            break;
        case 2:
            bytes.append(at & 255, 'x');
            break;
        case 3: // a payload byte, under a right check value
            if (!d.payload.empty()) d.payload[at % d.payload.size()] ^= static_cast<char>(in_.u8());
            return d.bytes();
        case 4: // one byte too few or too many
            d.payload.resize(at & 1 || d.payload.empty() ? d.payload.size() + 1 : d.payload.size() - 1);
            return d.bytes();
        default:
            return stamped(bytes, in_.u32());
        }
        return bytes;
    }
    static std::string stamped(std::string bytes, uint32_t size) {
        tav_ipc_hdr_st header = tavipc::read_header(bytes.data());
        header.size = size;
        header.magic = tav_ipc_hdr_magic(&header);
        return bytes.replace(0, sizeof header, bytes_of(header));
    }

    // Begins larger messages than an endpoint keeps.
    void flood() {
        const uint8_t slot = in_.u8() % kSlots;
        Datagram d{"", {address("e0"), address("p0", 2, 0, 99), 1, 0, 0, 0, 0, 65'000'000, {}, 0, 0}, ""};
        d.payload.resize(64'000);
        const std::string bytes = d.bytes();
        for (uint16_t id = flooded_ ? 9 : 0; id < 9; ++id)
            for (uint16_t sequence = 0; sequence < 33; ++sequence) {
                d.header.frag_id = id;
                tavipc::set_fragment(d.header, sequence);
                d.header.size = 64'000;
                d.header.magic = tav_ipc_hdr_magic(&d.header);
                deliver(slots_[slot], std::string(bytes).replace(0, sizeof d.header, bytes_of(d.header)));
            }
        flooded_ = true;
    }

    void raw_datagram() {
        tav_ipc_st *to = any_endpoint();
        const uint8_t size = in_.u8();
        std::string bytes = in_.text(60u + size);
        if (bytes.size() >= 60 && size != 255)
            bytes = stamped(bytes, static_cast<uint32_t>(bytes.size()) - 60);
        fill_ = '\0';
        mixed_ |= bytes.size() >= 60 && tavipc::is_fragment(tavipc::read_header(bytes.data()));
        deliver(to, bytes);
    }

    // One that the library itself sent.
    void relay() {
        if (w_.event.sends.empty()) return;
        const size_t index = w_.event.sends.size() - 1 - in_.u8() % w_.event.sends.size();
        const fake::Send sent = w_.event.sends[index];
        mixed_ |= tavipc::is_fragment(tavipc::read_header(sent.bytes.data()));
        fill_ = '\0';
        for (tav_ipc_st *slot : slots_)
            if (slot && sent.path.ends_with("/" + std::string(slot->my_addr.name))) deliver(slot, sent.bytes);
    }

    void deliver(tav_ipc_st *to, const std::string &bytes, const std::string *plain = nullptr,
                 int status = 0) {
        if (!to || !to->queue) return;
        const cl_dunix_t socket = to->queue->default_mod->sock;
        if (!w_.event.sockets.at(socket).recv) return;
        const std::string *const outer = std::exchange(expected_, plain);
        w_.event.deliver(socket, bytes, status);
        expected_ = outer;
    }

    // --- what endpoints do

    void open_endpoint(uint8_t slot, uint8_t how) {
        const std::string name = "e" + std::to_string(slot);
        tav_ipc_st *ipc = nullptr;
        switch (how % 5) {
        case 0:
            ipc = tav_ipc_create(name.c_str());
            break;
        case 1:
            ipc = tav_ipc_create_temp(name.c_str(), 1);
            break;
        case 2:
            ipc = tav_ipc_create_non_recv(name.c_str(), 1);
            break;
        case 3:
            ipc = tav_ipc_create_non_recv_temp(name.c_str(), 0);
            break;
        case 4:
            w_.event.fail_recv = 1;
            ipc = tav_ipc_create(name.c_str());
            w_.event.fail_recv = 0;
        }
        slots_[slot] = ipc;
        if (!ipc) return;
        tav_ipc_msg_recv(ipc, on_message, nullptr);
        tav_ipc_file_recv(ipc, on_file, nullptr);
        if (!(how & 64)) tav_ipc_on_request(ipc, on_request, nullptr);
    }
    void destroy(tav_ipc_st *&slot) {
        if (!slot || slot->closed) return tav_ipc_destroy(slot);
        tav_ipc_destroy(slot); // completions inside it may still use the handle
        slot = nullptr;
    }

    void send() {
        const tav_addr_st dest = any_address();
        const uint16_t flags = in_.u16();
        uint32_t reqid = in_.u8();
        tav_ipc_st *ipc = any_endpoint();
        std::string payload = body();
        if (reqid & 1) payload = application(payload);
        const bool zeros = reqid & 2;
        w_.memory.fail_push = reqid & 4 ? 1 : 0; // it cannot be queued
        const int result = tav_ipc_send_with_flags(ipc, &dest, in_.u8(), zeros ? nullptr : payload.data(),
                                                   static_cast<uint32_t>(payload.size()), flags, &reqid);
        FUZZ_CHECK(result == IPC_OK || result == IPC_ERR_SENDTO);
        FUZZ_CHECK(ipc || result != IPC_OK);
        w_.memory.fail_push = 0;
    }
    void respond() {
        const std::string payload = body();
        tav_ipc_response(any_endpoint(), &asker_, asked_, 1, payload.data(),
                         static_cast<uint32_t>(payload.size()));
    }
    void begin_exchange() {
        tav_ipc_st *ipc = any_endpoint();
        const uint8_t kind = in_.u8();
        const tav_addr_st dest = any_address();
        const int32_t timeout_s = static_cast<int8_t>(in_.u8());
        exchanges_.push_back(std::make_unique<Exchange>());
        Exchange *e = exchanges_.back().get();
        if (kind % 4 == 3) return tav_ipc_send_file(ipc, &dest, source(kind), on_status, e, timeout_s);
        if (kind % 4 == 2) return tav_ipc_probe(ipc, &dest, on_status, e);
        const std::string data = body();
        const auto size = static_cast<uint32_t>(data.size());
        if (kind % 4 == 1) return tav_ipc_send2(ipc, &dest, 2, data.data(), size, on_status, e, timeout_s);
        tav_ipc_make_request(ipc, &dest, 1, data.data(), size, on_response, e, timeout_s);
    }
    static const char *source(uint8_t which) {
        return which & 4 ? small_file.c_str() : which & 8 ? large_file.c_str() : "/nonexistent/x";
    }

    // --- what the rest of the world does

    void complete() {
        const uint8_t nth = in_.u8(), status = in_.u8();
        w_.event.fail_timers = nth >> 6;
        if (status >= 248) return refuse_all(status % 6);
        w_.memory.fail_push = status >= 240 ? 1 : 0; // it cannot be put back
        size_t left = nth & 63;
        for (size_t i = 0; i < w_.event.sends.size(); ++i)
            if (!w_.event.sends[i].done && left-- == 0)
                return w_.event.complete(i, status < 100 ? CL_EV_OK : status % 6);
    }
    // Until they are dropped.
    void refuse_all(int status) {
        for (int i = 0; i < 12; ++i) {
            w_.event.complete_all(status);
            w_.event.advance(1000);
        }
    }
    void pass_time() {
        constexpr uint32_t kMs[] = {1, 49, 1000, 1001, 11'000, 60'000, 301'000, 7'200'000};
        const uint8_t how = in_.u8();
        const uint32_t ms = kMs[how & 7];
        w_.clock.wall_s += how & 8 ? 0 : ms / 1000;
        if (how & 16) w_.clock.wall_s -= 3600; // somebody set it
        latest_ = std::max(latest_, w_.clock.wall_s);
        w_.event.fail_timers = how >> 6;
        w_.event.advance(std::min(ms, 301'000u));
        if (ms > 301'000) w_.clock.loop_ms += ms; // the loop was held up
    }
    void expire_files() {
        tavipc::resume_file_sweep(); // its timer may have failed
        w_.clock.wall_s = latest_ + 301;
        w_.event.advance(60'000);
        FUZZ_CHECK(files.live.empty());
        tavipc::reset_received_files();
        tavipc::reset_file_ids();
        tavipc::process_state() = {};
    }

    // --- callbacks

    // Reads all that was promised, does the next step, and reads it again.
    void got(const tav_addr_st *src, const void *data, uint32_t size) {
        FUZZ_CHECK(data);
        if (const std::string *plain = std::exchange(expected_, nullptr))
            FUZZ_CHECK(plain->size() == size && std::memcmp(plain->data(), data, size) == 0);
        check_fill(static_cast<const char *>(data), size);
        const std::string name = tavipc::name_text(*src).text;
        const std::string before(static_cast<const char *>(data), std::min(size, 200'000u));
        act();
        FUZZ_CHECK(std::memcmp(data, before.data(), before.size()) == 0 &&
                   name == tavipc::name_text(*src).text);
    }
    // A rebuilt message holds what its own fragments brought, and zeros.
    void check_fill(const char *data, size_t size) {
        if (!fill_ || mixed_) return;
        for (size_t begin = 0; begin < size; begin += 64'000) {
            const size_t end = std::min<size_t>(begin + 64'000, size);
            const char last = data[end - 1];
            FUZZ_CHECK(end - begin <= kOwn || last == '\0' || last == fill_);
        }
    }
    static int on_message(tav_ipc_st *, const tav_addr_st *src, uint32_t, const void *data, uint32_t size,
                          void *) {
        return current->got(src, data, size), 0;
    }
    static int on_request(tav_ipc_st *, const tav_addr_st *src, uint32_t reqid, uint32_t, const void *data,
                          uint32_t size, void *) {
        current->asker_ = *src;
        current->asked_ = reqid;
        return current->got(src, data, size), 0;
    }
    static int on_file(tav_ipc_st *, const char *path, void *) {
        FUZZ_CHECK(files.live.count(path));
        for (uint32_t id = 0; id < 8; ++id)
            if (const char *known = tav_ipc_get_file_path(nullptr, id)) FUZZ_CHECK(files.live.count(known));
        return current->act(), 0;
    }
    static int on_status(int32_t, void *user) {
        FUZZ_CHECK(++static_cast<Exchange *>(user)->completions == 1);
        return current->act(), 0;
    }
    static int on_response(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
        FUZZ_CHECK(code == IPC_OK || (!data && cmd == 0 && len == 0));
        const std::string answer(static_cast<const char *>(data), len); // reads all of it
        return on_status(code, user);
    }

    fuzz::Input &in_;
    fake::World &w_ = fake::world();
    tav_ipc_st *slots_[kSlots] = {};
    std::vector<std::unique_ptr<Exchange>> exchanges_;
    const std::string *expected_ = nullptr; // what the next message must hold
    char fill_ = '\0';                      // what the fragments on their way end with
    bool flooded_ = false;                  // may not be any more
    bool mixed_ = false;                    // fragments of other make have been among them
    tav_addr_st asker_ = address("p0");
    uint32_t asked_ = 1;
    time_t latest_ = 0;
    unsigned depth_ = 0;
    static inline Life *current;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int before = fuzz::open_descriptors();
    fuzz::Input in(data, size);
    Life(in).run();
    FUZZ_CHECK(fuzz::open_descriptors() == before);
    return 0;
}
