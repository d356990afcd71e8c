// The life of two endpoints in a fake world, described by the input: datagrams that reach them, sends,
// exchanges, files, completions, time; and inside each callback the next step of the same input. The body of
// every message repeats one letter, so that a message mixed of two shows. The counters balance after every
// step.
#include "bridge/subjects.h"
#include "endpoint_world.h"
#include "harness.h"
#include "tavipc/tav_ipc_ext.h"
#include "tavipc/tav_ipc_file_ext.h"

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
        for (const size_t slot : {0, 1}) open_or_close(slot);
    }
    void run() {
        for (unsigned i = 0; i < kMaxSteps && !in_.empty(); ++i) {
            step();
            for (const size_t slot : {0, 1})
                if (slots_[slot]) check_balance(slots_[slot]);
        }
        in_ = fuzz::Input(nullptr, 0);
        for (const size_t slot : {0, 1})
            if (slots_[slot]) open_or_close(slot);
        w.event.advance(1); // exchanges that could not be sent
        for (const auto &completions : exchanges_) FUZZ_CHECK(*completions == 1);
        for (const Call &call : calls_) FUZZ_CHECK(tainted_ || is_uniform(call.payload));
        FUZZ_CHECK(w.event.sockets.empty() && w.event.pending() == 0);
        w.clock.wall_s += 400; // received files are removed
        w.event.advance(60'000);
        tavipc::reset_process_state();
        FUZZ_CHECK(w.event.timers.empty());
        w = fake::World{};
    }

  private:
    void TestBody() override {}
    static void check_balance(tav_ipc_st *ipc) {
        for (const char *destination : {static_cast<const char *>(nullptr), "e0", "e1", "p0"}) {
            tav_ipc_stats_st counters{}; // stays zero without such a destination
            (void)tav_ipc_get_stats(ipc, destination, &counters, sizeof counters);
            FUZZ_CHECK(imbalance(counters.values) == 0);
        }
    }
    void step() {
        static constexpr void (Life::*kSteps[])() = {
            &Life::message,   &Life::fragments,  &Life::raw,      &Life::relay,
            &Life::pass_time, &Life::complete,   &Life::exchange, &Life::send_message,
            &Life::toggle,    &Life::fail_sends, &Life::cancel,   &Life::from_engine};
        (this->*kSteps[in_.u8() % std::size(kSteps)])();
    }
    int act() {
        if (depth_ >= kMaxDepth || in_.empty()) return 0;
        ++depth_;
        step();
        return --depth_, 0;
    }

    size_t slot() { return in_.u8() & 1; }
    tav_addr_st any_address() {
        static constexpr std::string_view kNames[] = {"e0", "e1", "p0", "a/b"};
        const uint8_t which = in_.u8(), here = static_cast<uint8_t>(w.deployment.location);
        return address(kNames[which & 3], which & 4 ? 13 : here, which & 8 ? ADDR_FLAG_COMPRESS_OK : 0,
                       which & 16 ? 4711 : 55);
    }
    std::string body(char letter) { // with the header of an application message for every other size
        const size_t size = in_.u8() & 1 ? in_.u16() * 2u : in_.u8();
        std::string text = app_message(20 + size / 2 * 2, in_.u8());
        std::fill(text.begin() + 20, text.end(), letter);
        return size & 1 ? text.substr(20) : text;
    }
    static bool is_uniform(std::string_view text) { // zeros are in place of fragments that did not arrive
        if (text.starts_with("3200")) text.remove_prefix(20);
        const size_t first = text.find_first_not_of('\0');
        return first == text.npos || text.find_first_not_of(std::string{text[first], '\0'}) == text.npos;
    }
    const fake::Send *any_sent() { // a datagram that the library has sent
        const size_t back = in_.u8(), count = w.event.sends.size();
        return count ? &w.event.sends[count - 1 - back % count] : nullptr;
    }
    void deliver(size_t to, const std::string &bytes) {
        const auto copy = fuzz::exact(bytes);
        if (slots_[to] && !closing_[to]) receive(slots_[to], std::string_view(copy.get(), bytes.size()));
    }

    void message() {
        const size_t to = slot();
        Datagram d{"", {address("e0"), any_address(), in_.u8(), in_.u16(), 0, 0, 0, 0, {}, 0, 0}, body('m')};
        d.header.cmd = in_.u8() & 7;
        d.header.flags &= static_cast<uint16_t>(~IPC_FLAG_COMPRESSED);
        if (d.header.reqid & 128) // the answer to a datagram, with a status
            if (const fake::Send *sent = any_sent()) {
                d.header.reqid = tavipc::read_header(sent->bytes.data()).reqid;
                d.payload = bytes_of(uint32_t{in_.u8()} * 0x01010101);
            }
        deliver(to, d.bytes());
    }
    void fragments() { // those of one id and source belong to the same message
        constexpr uint32_t kWhole[] = {0,          64'000,     64'001,        150'000,
                                       65'472'000, 65'536'001, 4'294'967'236, 600'000};
        const size_t to = slot();
        const uint8_t shape = in_.u8();
        const auto id = static_cast<uint16_t>(in_.u8() & 3);
        Datagram d{"", {address("e0"), any_address(), 7u + id, 0, 0, 0, 0, kWhole[shape & 7], {}, id, 0}, ""};
        uint16_t sequence = shape & 8 ? in_.u16() & 0x3FF : in_.u8() & 3;
        for (int burst = shape & 16 ? 10 : 1; burst > 0; --burst, ++sequence) {
            const uint64_t offset = uint64_t{sequence} * 64'000, whole = d.header.frag_orig;
            tavipc::set_fragment(d.header, sequence);
            d.payload.assign(std::min<uint64_t>(whole - std::min(whole, offset), 64'000),
                             static_cast<char>('a' + id));
            deliver(to, d.bytes());
        }
    }
    void raw() { // for most inputs with the right check value; some claim more bytes than they have
        tainted_ = true;
        const size_t to = slot(), size = in_.u8(), lie = in_.u8() % 4 * 30;
        std::string bytes = in_.text(60 + size);
        if (bytes.size() >= 60 && size != 255) {
            const Datagram d{"", tavipc::read_header(bytes.data()), bytes.substr(60) + std::string(lie, 'x')};
            (bytes = d.bytes()).resize(60 + d.payload.size() - lie);
        }
        deliver(to, bytes);
    }
    void relay() { // for some inputs with a changed payload
        const fake::Send *sent = any_sent();
        const std::string path = sent ? sent->path : "";
        std::string bytes = sent ? sent->bytes : "";
        const uint16_t at = in_.u16();
        if (const uint8_t flaw = in_.u8(); flaw > 0 && bytes.size() > 60) {
            tainted_ = true;
            bytes[60 + at % (bytes.size() - 60)] ^= static_cast<char>(flaw);
            bytes = Datagram{"", tavipc::read_header(bytes.data()), bytes.substr(60)}.bytes();
        }
        for (const size_t to : {0, 1})
            if (path.ends_with("/e" + std::to_string(to))) deliver(to, bytes);
    }
    // What the engine gives to a bridge reaches a socket under a plain name only.
    void from_engine() {
        tainted_ = true;
        const uint8_t shape = in_.u8();
        std::string subject = in_.text(shape & 63), bytes = in_.text(60 + in_.u8());
        const tavbridge::Home home{{3, 55}, true, true};
        if ((shape & 64) && bytes.size() >= 60) { // one that fits
            Datagram d{"", tavipc::read_header(bytes.data()), bytes.substr(60)};
            d.header.dest.loc = 3, d.header.dest.hostid = 55;
            bytes = d.bytes();
            subject = tavbridge::subject_text("d", {home.place,
                                                    tavipc::name_text(d.header.dest).text,
                                                    tavbridge::Class::kDurable,
                                                    {d.header.src.loc, d.header.src.hostid}});
            if (shape & 128) bytes += bytes + in_.text(in_.u8()); // several in one message
        }
        const auto parsed = tavbridge::parse_subject("d", subject);
        const tavbridge::Origin origin = tavbridge::parse_origin(shape & 32 ? "$JS.ACK." + subject : subject);
        FUZZ_CHECK(origin.key != 0 || origin.times == 0 || origin.time_ns != 0); // not half read
        std::string_view rest = bytes;
        while (parsed && !rest.empty()) {
            const size_t before = rest.size();
            const std::string_view datagram = tavbridge::cut_datagram(rest);
            FUZZ_CHECK(!datagram.empty() && datagram.size() + rest.size() == before);
            const auto copy = fuzz::exact(datagram);
            const std::string_view exact(copy.get(), datagram.size());
            if (tavbridge::judge_incoming(home, *parsed, exact) != tavbridge::kNoDrop) continue;
            FUZZ_CHECK(parsed->name.find_first_of("/.*> ") == std::string::npos && parsed->name[0] != '\0');
            tavbridge::message_id(exact, subject);
            if (slots_[0]) tav_ipc_send_raw(slots_[0], parsed->name.c_str(), copy.get());
        }
    }
    void toggle() { open_or_close(slot()); }
    void open_or_close(size_t which) {
        tav_ipc_st *&ipc = slots_[which];
        if (!ipc) {
            ipc = which ? tav_ipc_create_temp("e1", 1) : tav_ipc_create("e0");
            listen(ipc);
            tav_ipc_on_file(ipc, on_file, on_file, nullptr);
            return;
        }
        if (std::exchange(closing_[which], true)) return; // completions inside may still use the handle
        tav_ipc_destroy(ipc);
        ipc = nullptr;
        closing_[which] = false;
    }
    void send_message() {
        tav_ipc_st *ipc = slots_[slot()];
        const tav_addr_st dest = any_address();
        const std::string payload = body('s');
        send(ipc, payload, dest, in_.u16());
        tav_ipc_response(ipc, &dest, in_.u8(), 1, payload.data(), static_cast<uint32_t>(payload.size()));
    }
    void exchange() {
        tav_ipc_st *ipc = slots_[slot()];
        const uint8_t kind = in_.u8() % 6;
        const tav_addr_st dest = any_address();
        const int32_t timeout_s = static_cast<int8_t>(in_.u8());
        const std::string data = body('x');
        const auto size = static_cast<uint32_t>(data.size());
        int *calls = exchanges_.emplace_back(std::make_unique<int>(0)).get();
        if (kind == 0) tav_ipc_make_request(ipc, &dest, 1, data.data(), size, on_response, calls, timeout_s);
        if (kind == 1) tav_ipc_send2(ipc, &dest, 2, data.data(), size, on_status, calls, timeout_s);
        if (kind == 2) tav_ipc_probe(ipc, &dest, on_status, calls);
        if (kind == 3) tav_ipc_send_file(ipc, &dest, kFile.c_str(), on_status, calls, timeout_s);
        if (kind < 4) return;
        const auto ms = static_cast<uint32_t>(timeout_s & 0x7F) * 10;
        last_id_ = kind == 4 ? tav_ipc_exchange_start(ipc, size & 0x101, &dest, 1, data.data(), size, ms,
                                                      on_exchange, calls)
                             : tav_ipc_file_start(ipc, &dest, kFile.c_str(), size % 4 ? "name" : nullptr, ms,
                                                  0, on_progress, on_done, calls);
        if (last_id_ == 0) *calls = 1;
    }
    void cancel() {
        tav_ipc_st *ipc = slots_[slot()];
        if (tav_ipc_exchange_cancel(ipc, last_id_) != 0) tav_ipc_file_cancel(ipc, last_id_);
        tav_ipc_file_drop(static_cast<uint32_t>(last_id_));
    }
    void complete() {
        const uint8_t nth = in_.u8(), status = in_.u8();
        if (nth == 255) return w.event.complete_all(status % 6);
        for (size_t i = 0, left = nth; i < w.event.sends.size(); ++i)
            if (!w.event.sends[i].done && left-- == 0)
                return w.event.complete(i, status < 100 ? CL_EV_OK : status % 6);
    }
    void fail_sends() { w.event.fail_send = in_.u8() % 4; }
    void pass_time() {
        constexpr uint32_t kSteps_ms[] = {1, 49, 1000, 1001, 11'000, 60'000, 301'000, 100};
        const uint32_t ms = kSteps_ms[in_.u8() & 7];
        w.clock.wall_s += ms / 1000;
        w.event.advance(ms);
    }

    static int on_status(int32_t, void *calls) {
        FUZZ_CHECK(++*static_cast<int *>(calls) == 1);
        return current->act();
    }
    static int on_response(int32_t code, uint32_t, const void *data, uint32_t len, void *calls) {
        const std::string answer(static_cast<const char *>(data), len); // reads all of it
        return on_status(code, calls);
    }

    static void on_exchange(uint64_t, int32_t code, uint32_t, const void *data, uint32_t len, void *calls) {
        on_response(code, 0, data, len, calls);
    }
    static void on_done(uint64_t, int32_t code, void *calls) { on_status(code, calls); }
    static void on_progress(uint64_t, uint64_t, uint64_t, void *) { current->act(); }
    static void on_file(tav_ipc_st *, const tav_ipc_file_st *, void *) { current->act(); }

    fuzz::Input &in_;
    tav_ipc_st *slots_[2] = {};
    bool closing_[2] = {}, tainted_ = false;      // tainted: the input wrote a datagram of its own
    std::vector<std::unique_ptr<int>> exchanges_; // calls of each callback
    unsigned depth_ = 0;
    uint64_t last_id_ = 0; // of the newest exchange or transfer with one
    static inline Life *current;
};

} // namespace

static void run_input(fuzz::Input &in) { Life(in).run(); }
