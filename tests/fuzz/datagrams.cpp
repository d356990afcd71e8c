// The life of two endpoints in a fake world, described by the input: datagrams that reach them, sends,
// exchanges, files, completions, time; and inside each callback the next step of the same input.
//
// Most datagrams have the right length and check value, so that the input reaches the code behind these
// tests. The body of every message repeats one letter, so that a message mixed of two shows.
#include "endpoint_world.h"
#include "harness.h"
#include "tavipc/tav_compress.h"

namespace {

constexpr unsigned kMaxSteps = 300, kMaxDepth = 4;
const std::string kFile = "/proc/self/fd/" + std::to_string(fuzz::memory_file(std::string(64'001, 'l')));

class Life : public EndpointWorld {
  public:
    explicit Life(fuzz::Input &in) : in_(in) {
        current = this;
        then_ = [this](tav_ipc_st *) { act(); };
        const uint8_t mode = in_.u8();
        w.log.threshold = mode & 1 ? 4 : 1;
        if (mode & 2) w.deployment.location = mode & 4 ? 4 : 1;
        for (const size_t slot : {0, 1}) open(slot);
    }

    void run() {
        for (unsigned i = 0; i < kMaxSteps && !in_.empty(); ++i) step();
        in_ = fuzz::Input(nullptr, 0);
        for (const size_t slot : {0, 1}) close(slot);
        w.event.advance(1); // exchanges that could not be sent
        for (const auto &completions : exchanges_) FUZZ_CHECK(*completions == 1);
        for (const Call &call : calls_) FUZZ_CHECK(tainted_ || is_uniform(call.payload));
        FUZZ_CHECK(w.event.sockets.empty() && w.event.pending() == 0);
        remove_received_files();
        FUZZ_CHECK(w.event.timers.empty());
        w = fake::World{};
    }

  private:
    void TestBody() override {}

    void step() {
        static constexpr void (Life::*kSteps[])() = {
            &Life::message,    &Life::fragments, &Life::raw_datagram,   &Life::relay,
            &Life::pass_time,  &Life::complete,  &Life::begin_exchange, &Life::send_message,
            &Life::open_close, &Life::fail_sends};
        (this->*kSteps[in_.u8() % std::size(kSteps)])();
    }
    void act() {
        if (depth_ >= kMaxDepth || in_.empty()) return;
        ++depth_;
        step();
        --depth_;
    }

    tav_addr_st any_address() {
        static constexpr std::string_view kNames[] = {"e0", "e1", "p0", "a/b"};
        const uint8_t which = in_.u8();
        const auto here = static_cast<uint8_t>(w.deployment.location);
        return address(kNames[which & 3], which & 4 ? 13 : here, which & 8 ? ADDR_FLAG_COMPRESS_OK : 0,
                       which & 16 ? 4711 : 55);
    }
    // A payload of one letter, with the header of an application message for some.
    std::string body(char letter, uint8_t shape) {
        const size_t size = shape & 4 ? in_.u16() * 2u : in_.u8();
        return shape & 1
                   ? app_message(20, in_.u8()).replace(16, 4, bytes_of(htonl(static_cast<uint32_t>(size)))) +
                         std::string(size, letter)
                   : std::string(size, letter);
    }
    static bool is_uniform(std::string_view payload) {
        if (payload.starts_with("3200")) payload.remove_prefix(20);
        const size_t first =
            payload.find_first_not_of('\0'); // zeros are in place of a fragment that did not arrive
        return first == payload.npos ||
               payload.find_first_not_of(std::string{payload[first], '\0'}) == payload.npos;
    }

    size_t which() { return in_.u8() & 1; } // endpoint

    void message() {
        const size_t slot = which();
        Datagram d{"", {address("e0"), any_address(), 0, in_.u16(), 0, 0, 0, 0, {}, 0, 0}, ""};
        const uint8_t shape = in_.u8(), id = in_.u8();
        d.header.cmd = in_.u8() & 7;
        d.header.reqid = id < 128 ? tavipc::process_state().last_reqid - id : id;
        d.header.flags &= static_cast<uint16_t>(~IPC_FLAG_COMPRESSED);
        d.payload = body('m', shape);
        if (shape & 32) d.payload = bytes_of(uint32_t{in_.u8()} * 0x01010101); // perhaps a status
        if ((shape & 35) == 3) {
            void *out = nullptr;
            FUZZ_CHECK(tav_msg_compress(d.payload.data(), &out, TAV_COMPRESS_FORCE) == TAV_COMPRESS_OK);
            d.payload.assign(static_cast<char *>(out), 20 + tavipc::app_body_length(out));
            std::free(out);
            d.header.flags |= IPC_FLAG_COMPRESSED;
        }
        deliver(slot, d.bytes());
    }
    // Fragments of the same id and source belong to the same message.
    void fragments() {
        constexpr uint32_t kWhole[] = {0,          64'000,     64'001,        150'000,
                                       65'472'000, 65'536'001, 4'294'967'236, 600'000};
        const size_t slot = which();
        const uint8_t shape = in_.u8();
        Datagram d{"", {address("e0"), any_address(), 0, 0, 0, 0, 0, kWhole[shape & 7], {}, 0, 0}, ""};
        d.header.frag_id = in_.u8() & 3;
        d.header.reqid = 7u + d.header.frag_id;
        uint16_t sequence = shape & 8 ? in_.u16() & 0x3FF : in_.u8() & 3;
        for (int burst = shape & 16 ? 10 : 1; burst > 0; --burst, ++sequence) {
            const uint64_t offset = uint64_t{sequence} * 64'000;
            const uint64_t left = d.header.frag_orig > offset ? d.header.frag_orig - offset : 0;
            tavipc::set_fragment(d.header, sequence);
            d.payload.assign(std::min<uint64_t>(left, 64'000), static_cast<char>('a' + d.header.frag_id));
            deliver(slot, d.bytes());
        }
    }
    void raw_datagram() { // for most inputs with the right length and check value
        tainted_ = true;
        const size_t slot = which();
        const uint8_t size = in_.u8();
        std::string bytes = in_.text(60u + size);
        if (bytes.size() >= 60 && size != 255)
            bytes = Datagram{"", tavipc::read_header(bytes.data()), bytes.substr(60)}.bytes();
        deliver(slot, bytes);
    }
    void relay() { // of a datagram that the library has sent
        if (w.event.sends.empty()) return;
        const fake::Send sent = w.event.sends[w.event.sends.size() - 1 - in_.u8() % w.event.sends.size()];
        for (const size_t slot : {0, 1})
            if (sent.path.ends_with("/e" + std::to_string(slot))) deliver(slot, sent.bytes);
    }
    void deliver(size_t slot, const std::string &bytes) {
        const auto copy = fuzz::exact(bytes);
        if (slots_[slot] && !closing_[slot])
            receive(slots_[slot], std::string_view(copy.get(), bytes.size()));
    }
    void open_close() {
        const size_t slot = which();
        slots_[slot] ? close(slot) : open(slot);
    }
    void open(size_t slot) {
        slots_[slot] = slot ? tav_ipc_create_temp("e1", 1) : tav_ipc_create("e0");
        listen(slots_[slot]);
        tav_ipc_file_recv(slots_[slot], on_file, nullptr);
    }
    void close(size_t slot) {
        if (std::exchange(closing_[slot], true)) return; // completions inside may still use the handle
        tav_ipc_destroy(slots_[slot]);
        slots_[slot] = nullptr;
        closing_[slot] = false;
    }
    void fail_sends() { w.event.fail_send = in_.u8() % 4; }
    void send_message() {
        tav_ipc_st *ipc = slots_[which()];
        const tav_addr_st dest = any_address();
        const std::string payload = body('s', in_.u8());
        const int result = send(ipc, payload, dest, in_.u16());
        FUZZ_CHECK(result == IPC_OK || result == IPC_ERR_SENDTO);
        tav_ipc_response(ipc, &dest, in_.u8(), 1, payload.data(), static_cast<uint32_t>(payload.size()));
    }
    void begin_exchange() {
        tav_ipc_st *ipc = slots_[which()];
        const uint8_t kind = in_.u8();
        const tav_addr_st dest = any_address();
        const int32_t timeout_s = static_cast<int8_t>(in_.u8());
        int *completions = exchanges_.emplace_back(std::make_unique<int>(0)).get();
        if (kind % 4 == 3)
            return tav_ipc_send_file(ipc, &dest, kFile.c_str(), on_status, completions, timeout_s);
        if (kind % 4 == 2) return tav_ipc_probe(ipc, &dest, on_status, completions);
        const std::string data = body('x', kind >> 2);
        const auto size = static_cast<uint32_t>(data.size());
        if (kind % 4 == 1)
            return tav_ipc_send2(ipc, &dest, 2, data.data(), size, on_status, completions, timeout_s);
        tav_ipc_make_request(ipc, &dest, 1, data.data(), size, on_response, completions, timeout_s);
    }
    void complete() {
        const uint8_t nth = in_.u8(), status = in_.u8();
        if (nth == 255) return w.event.complete_all(status % 6);
        for (size_t i = 0, left = nth; i < w.event.sends.size(); ++i)
            if (!w.event.sends[i].done && left-- == 0)
                return w.event.complete(i, status < 100 ? CL_EV_OK : status % 6);
    }
    void pass_time() {
        constexpr uint32_t kSteps_ms[] = {1, 49, 1000, 1001, 11'000, 60'000, 301'000, 100};
        const uint32_t ms = kSteps_ms[in_.u8() & 7];
        w.clock.wall_s += ms / 1000;
        w.event.advance(ms);
    }
    // What the process keeps beyond its endpoints.
    void remove_received_files() {
        w.clock.wall_s += 400;
        w.event.advance(60'000);
        xhash_destroy(tavipc::process_state().received_files);
        cl_timer_stop(tavipc::process_state().file_sweep_timer);
    }

    static int on_file(tav_ipc_st *, const char *path, void *) {
        FUZZ_CHECK(access(path, R_OK) == 0);
        return current->act(), 0;
    }
    static int on_status(int32_t, void *completions) {
        FUZZ_CHECK(++*static_cast<int *>(completions) == 1);
        return current->act(), 0;
    }
    static int on_response(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *completions) {
        FUZZ_CHECK(code == IPC_OK || (!data && cmd == 0 && len == 0));
        const std::string answer(static_cast<const char *>(data), len); // reads all of it
        return on_status(code, completions);
    }

    fuzz::Input &in_;
    tav_ipc_st *slots_[2] = {};
    bool closing_[2] = {}, tainted_ = false; // tainted: the input made bodies of its own
    std::vector<std::unique_ptr<int>> exchanges_;
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
