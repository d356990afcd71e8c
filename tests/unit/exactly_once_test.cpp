// Every exchange completes exactly once, with a code that it can have: thousands of them, at random, against
// a peer that answers, answers late, twice, wrongly or never, refuses datagrams and dies, with callbacks that
// send, begin more exchanges and destroy and create endpoints.
//
// Each seed is one run. The seed is printed before its run; TAVIPC_SEED=N replays that one alone.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>

#include <sys/mman.h>
#include <unistd.h>

#include "endpoint_world.h"

// The tables' hash key: the same in every run, or a seed would not replay the order of a walk.
extern "C" __attribute__((visibility("default"))) ssize_t getrandom(void *buffer, size_t size, unsigned) {
    std::memset(buffer, 7, size);
    return static_cast<ssize_t>(size);
}

namespace {

constexpr size_t kExchanges = 500; // a run begins so many

enum Kind { kRequest, kConfirmed, kProbe, kFile, kKinds };
enum Phase { kOpen, kClosing, kGone };

struct Endpoint {
    tav_ipc_st *ipc;
    std::string name;
    Phase phase = kOpen;
};

// The model of one exchange: what may come of it, and what came.
struct Exchange {
    Kind kind;
    Endpoint *endpoint;
    int32_t timeout_s;
    bool bad_dest, no_file, on_closing;
    time_t begun;
    bool completes_later; // from a timer, though the endpoint is gone
    bool inside_call = true;
    int32_t file_id = -1;
    int completions = 0;
    std::set<int32_t> answers{};    // codes that the peer gave it
    std::set<uint32_t> confirmed{}; // message ids of a file's chunks that the peer confirmed
};

class RandomRun : public EndpointWorld {
  public:
    explicit RandomRun(unsigned seed) : random_(seed), chunks_(1 + pick(3)) {
        current = this;
        std::printf("TAVIPC_SEED=%u\n", seed);
        std::fflush(stdout);
        EXPECT_EQ(ftruncate(file_, static_cast<off_t>(chunks_ - 1) * 50'000), 0);
    }
    ~RandomRun() override { ::close(file_); }

    void run() {
        while (exchanges_.size() < kExchanges && !HasFailure()) step();
        draining_ = true; // no answers any more: what is left times out
        for (int second = 0; second < 20; ++second) {
            while (seen_ < w.event.sends.size() || !unhandled_.empty()) handle_datagram();
            pass_time(1, 1000);
        }
        for (const auto &endpoint : endpoints_)
            if (endpoint->phase == kOpen) destroy_endpoint(endpoint.get());
        pass_time(0, 1);
        std::set<Kind> kinds;
        for (const auto &e : exchanges_) {
            EXPECT_EQ(e->completions, 1) << "kind " << e->kind;
            kinds.insert(e->kind);
        }
        EXPECT_EQ(kinds.size(), static_cast<size_t>(kKinds));
        TearDown();
    }

  private:
    void TestBody() override {}

    void step() {
        if (!any_endpoint()) {
            create_endpoint();
            ASSERT_TRUE(any_endpoint()) << "every name is free, and still none can be opened";
        }
        const unsigned what = pick(100);
        if (what < 30) return begin_exchange();
        if (what < 60) return handle_datagram();
        if (what < 70) return deliver_late_answer();
        if (what < 80) return pass_time(0, pick(60));
        if (what < 85) return pass_time(1, 1000);
        if (what < 90) return void(w.event.fail_send = static_cast<int>(pick(4)));
        act();
    }

    // --- chance
    unsigned pick(size_t n) { return static_cast<unsigned>(random_() % n); }
    bool chance(unsigned percent) { return pick(100) < percent; }
    Endpoint *any_endpoint() {
        std::vector<Endpoint *> usable;
        for (const auto &e : endpoints_)
            if (e->phase != kGone) usable.push_back(e.get());
        return usable.empty() ? nullptr : usable[pick(usable.size())];
    }
    std::string any_name() { return "e" + std::to_string(pick(4)); }

    // --- what a module does

    // Something at random, from any callback.
    void act() {
        if (depth_ > 4) return;
        ++depth_;
        const unsigned what = pick(100);
        Endpoint *endpoint = any_endpoint();
        const tav_addr_st dest = address("peer0");
        if (what < 25) begin_exchange();
        if (what >= 25 && what < 35 && endpoint) tav_ipc_send(endpoint->ipc, &dest, 9, "message", 7);
        if (what >= 35 && what < 40 && endpoint) destroy_endpoint(endpoint);
        if (what >= 40 && what < 50) create_endpoint();
        if (what >= 50 && what < 60) deliver_late_answer();
        --depth_;
    }

    void create_endpoint() {
        const std::string name = any_name();
        tav_ipc_st *ipc = draining_ ? nullptr : tav_ipc_create(name.c_str()); // null: the name is in use
        if (ipc) endpoints_.push_back(std::make_unique<Endpoint>(Endpoint{ipc, name}));
    }

    void destroy_endpoint(Endpoint *endpoint) {
        const bool first = endpoint->phase == kOpen;
        endpoint->phase = kClosing;
        tav_ipc_destroy(endpoint->ipc);
        if (!first) return; // inside the first call
        endpoint->phase = kGone;
        for (const auto &e : exchanges_)
            EXPECT_TRUE(e->endpoint != endpoint || e->completions > 0 || e->inside_call || e->completes_later)
                << "kind " << e->kind << " left by the destruction";
    }

    void begin_exchange() {
        Endpoint *endpoint = any_endpoint();
        if (!endpoint || draining_ || exchanges_.size() >= kExchanges) return;
        const auto kind = static_cast<Kind>(pick(kKinds));
        const int32_t timeout_s = kind == kProbe ? 5 : static_cast<int>(pick(6)) - 1;
        const bool bad_dest = chance(10), no_file = kind == kFile && chance(5);
        const bool on_closing = endpoint->phase == kClosing;
        exchanges_.push_back(
            std::make_unique<Exchange>(Exchange{kind, endpoint, timeout_s, bad_dest, no_file, on_closing,
                                                w.clock.wall_s, bad_dest || on_closing}));
        Exchange &e = *exchanges_.back();

        tav_ipc_st *ipc = endpoint->ipc;
        const tav_addr_st dest = address(bad_dest ? "no/peer" : "peer" + std::to_string(pick(3)));
        const uint32_t size = chance(5) ? 70'000 : pick(200);
        const std::string payload(size, 'p');
        const std::string path = no_file ? "/no/such/file" : "/proc/self/fd/" + std::to_string(file_);
        const int drawn = w.random.counter;
        if (kind == kRequest)
            tav_ipc_make_request(ipc, &dest, 1, payload.data(), size, on_response, &e, timeout_s);
        else if (kind == kConfirmed)
            tav_ipc_send2(ipc, &dest, 2, payload.data(), size, on_status, &e, timeout_s);
        else if (kind == kProbe)
            tav_ipc_probe(ipc, &dest, on_status, &e);
        else
            tav_ipc_send_file(ipc, &dest, path.c_str(), on_status, &e, timeout_s);
        e.inside_call = false;
        if (bad_dest || no_file || on_closing) return;
        if (kind != kFile) return void(by_message_[tavipc::last_reqid()] = &e);
        const std::string text = std::to_string(dest.hostid) + '.' + std::to_string(w.clock.wall_s) + '.' +
                                 std::to_string(drawn + 2) + '.' + std::to_string(drawn + 1);
        e.file_id =
            std::abs(static_cast<int32_t>(orlask_crc32(text.data(), static_cast<uint32_t>(text.size()))));
        by_file_[static_cast<uint32_t>(e.file_id)] = &e;
    }

    bool possible(const Exchange &e, int32_t code) const {
        if (e.inside_call || e.no_file) return e.inside_call && e.no_file && code == IPC_ERR_OPEN_FILE;
        if (e.on_closing) return code == IPC_ERR_CLOSED;
        if (e.bad_dest) return code == IPC_ERR_SENDTO;
        if (code == IPC_ERR_CLOSED) return e.endpoint->phase != kOpen;
        if (code == IPC_ERR_TIMEOUT) return w.clock.wall_s > e.begun + e.timeout_s;
        if (e.kind == kFile && code == e.file_id) return e.confirmed.size() == chunks_;
        return e.answers.count(code) > 0;
    }

    static int on_status(int32_t code, void *user) {
        auto &e = *static_cast<Exchange *>(user);
        EXPECT_EQ(++e.completions, 1);
        EXPECT_TRUE(current->possible(e, code))
            << "kind " << e.kind << " code " << code << " in call " << e.inside_call;
        current->act();
        return 0;
    }
    static int on_response(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
        EXPECT_TRUE(code == 0 || (!data && cmd == 0 && len == 0)) << code;
        return on_status(code, user);
    }

    // --- what the peer and time do

    void pass_time(time_t seconds, uint64_t ms) {
        w.clock.wall_s += seconds;
        w.event.advance(ms);
    }

    // One datagram that the event library has reaches the peer, or does not.
    void handle_datagram() {
        for (; seen_ < w.event.sends.size(); ++seen_) {
            unhandled_.push_back(seen_);
            const tav_ipc_hdr_st header = sent(seen_).header;
            if (header.flags & IPC_FLAG_FILE) by_message_[header.reqid] = by_file_.at(header.cmd);
        }
        if (unhandled_.empty()) return;
        const auto at = unhandled_.begin() + pick(std::min<size_t>(8, unhandled_.size()));
        const size_t index = *at;
        unhandled_.erase(at);
        if (w.event.sends[index].done) return; // cancelled with its socket
        const tav_ipc_hdr_st header = sent(index).header;
        if (chance(10)) return w.event.complete(index, CL_EV_IO + static_cast<int>(pick(4)));
        w.event.complete(index, CL_EV_OK);
        if (!draining_ && tavipc::fragment_sequence(header) == 0) answer(header);
    }

    // The answer to a message: now or later, once or twice, to the right id or to another, or never.
    void answer(const tav_ipc_hdr_st &message) {
        if (!(message.flags & (IPC_FLAG_NEED_ACK | IPC_FLAG_REQUEST)) || chance(20)) return;
        const int32_t codes[] = {0, 0, 0, 0, 0, 0, -106, -107, -109, 1005};
        const int32_t code = codes[pick(message.flags & IPC_FLAG_FILE ? 7 : 10)];
        const bool response = chance(message.flags & IPC_FLAG_REQUEST ? 80 : 5);
        const std::string confirmation(reinterpret_cast<const char *>(&code), chance(90) ? sizeof code : 2);
        Datagram reply{"", {}, response ? std::string(pick(100), 'r') : confirmation};
        reply.header.flags = response ? IPC_FLAG_RESPONSE : IPC_FLAG_ACK;
        reply.header.cmd = response ? pick(1000) : 0;
        reply.header.reqid = message.reqid;
        if (chance(5))
            reply.header.reqid = chance(50) ? by_message_.begin()->first : message.reqid + 1'000'000;
        const std::string name = tavipc::name_text(message.src).text;
        for (int copies = chance(15) ? 2 : 1; copies > 0; --copies)
            if (chance(70))
                deliver(reply, name);
            else
                late_.emplace_back(name, reply);
    }

    void deliver_late_answer() {
        if (late_.empty()) return;
        const size_t index = pick(late_.size());
        const auto [name, datagram] = late_[index];
        if (chance(80)) late_.erase(late_.begin() + static_cast<long>(index)); // else it comes once more
        deliver(datagram, chance(95) ? name : any_name());
    }

    // A datagram reaches the endpoint of that name; the model learns what an answer allows.
    void deliver(const Datagram &datagram, const std::string &name) {
        const cl_dunix_t socket = w.event.socket_at("/var/zon_ipc2/" + name);
        if (!socket) return;
        const tav_ipc_hdr_st &header = datagram.header;
        const auto found = by_message_.find(header.reqid);
        if (found != by_message_.end() && found->second->endpoint->name == name &&
            (header.flags & (IPC_FLAG_ACK | IPC_FLAG_RESPONSE))) {
            int32_t code = 0;
            if ((header.flags & IPC_FLAG_ACK) && datagram.payload.size() == sizeof code)
                std::memcpy(&code, datagram.payload.data(), sizeof code);
            Exchange &e = *found->second;
            e.completes_later |=
                e.kind == kFile && e.endpoint->phase == kClosing; // its next chunk is refused
            if (e.kind == kFile && code == 0)
                e.confirmed.insert(header.reqid);
            else
                e.answers.insert(code);
        }
        w.event.deliver(socket, datagram.bytes());
    }

    std::mt19937 random_;
    const int file_ = memfd_create("source", MFD_CLOEXEC); // what is sent, in so many chunks:
    const size_t chunks_;
    std::vector<std::unique_ptr<Endpoint>> endpoints_;
    std::vector<std::unique_ptr<Exchange>> exchanges_;
    std::map<uint32_t, Exchange *> by_message_, by_file_;
    std::vector<std::pair<std::string, Datagram>> late_; // answers on their way to an endpoint's name
    std::vector<size_t> unhandled_;                      // datagrams that the event library has
    size_t seen_ = 0;
    unsigned depth_ = 0;
    bool draining_ = false;
    static inline RandomRun *current;
};

TEST(ExactlyOnce, WhateverCallbacksAndPeerDo) {
    const auto run = [](unsigned seed) {
        SCOPED_TRACE("TAVIPC_SEED=" + std::to_string(seed));
        if (!HasFailure()) RandomRun(seed).run();
    };
    if (const char *given = std::getenv("TAVIPC_SEED")) return run(static_cast<unsigned>(std::atol(given)));
    const auto begun = std::chrono::steady_clock::now();
    for (unsigned seed = 1; seed <= 20; ++seed) run(seed);
    while (std::chrono::steady_clock::now() - begun < std::chrono::seconds(5) && !HasFailure())
        run(std::random_device()());
}

} // namespace
