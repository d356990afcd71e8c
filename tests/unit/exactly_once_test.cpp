// Every exchange completes exactly once, with a code that it can have: hundreds of them at random, against a
// peer that answers late, twice, wrongly or never and refuses datagrams, while callbacks start exchanges and
// destroy and open endpoints. The parameter is the seed.
#include <random>
#include <set>

#include <sys/mman.h>

#include "endpoint_world.h"

// The key of the hash tables, which the order of their walks depends on.
extern "C" __attribute__((visibility("default"))) ssize_t getrandom(void *buffer, size_t size, unsigned) {
    return std::memset(buffer, 7, size), static_cast<ssize_t>(size);
}

namespace {

struct Exchange {
    tav_ipc_st **endpoint; // null when it is gone
    time_t latest_s;       // times out after it
    int32_t refused;       // the code if nothing can be sent, else 0
    bool running = true;   // the call that starts it
    int completions = 0;
    std::set<int32_t> answers{};    // codes that the peer sent, and the file id once it confirmed all chunks
    std::set<uint32_t> confirmed{}; // message ids
};

class ExactlyOnce : public EndpointWorld, public testing::WithParamInterface<unsigned> {
  protected:
    ExactlyOnce() : random_(GetParam()) {
        current = this;
        EXPECT_EQ(ftruncate(file_, 64'001), 0); // three chunks with the empty one
    }
    ~ExactlyOnce() override { ::close(file_); }
    unsigned pick(size_t n) { return static_cast<unsigned>(random_() % n); }
    bool chance(unsigned percent) { return pick(100) < percent; }
    tav_ipc_st **any_endpoint() {
        tav_ipc_st **found = nullptr;
        for (tav_ipc_st *&ipc : endpoints_)
            if (ipc && (!found || chance(50))) found = &ipc;
        return found;
    }
    void open_one() {
        const std::string name = "e" + std::to_string(pick(4));
        if (tav_ipc_st *ipc = tav_ipc_create(name.c_str())) endpoints_.push_back(ipc); // else it is in use
    }
    static void destroy(tav_ipc_st *&ipc) {
        const bool outermost = !ipc->closed;
        tav_ipc_destroy(ipc);
        if (outermost) ipc = nullptr;
    }
    void begin_exchange() {
        tav_ipc_st **endpoint = any_endpoint();
        if (!endpoint) return;
        const unsigned kind = pick(4);
        const int32_t timeout_s = kind == 0 ? 5 : static_cast<int>(pick(6)) - 1;
        const bool bad = chance(10);
        // Datagrams carry the host id unchanged: it tells the exchange.
        const tav_addr_st dest =
            address(bad ? "a/b" : "peer", 2, 0, static_cast<uint32_t>(exchanges_.size()));
        tav_ipc_st *ipc = *endpoint;
        const int32_t refused = ipc->closed ? IPC_ERR_CLOSED : bad ? IPC_ERR_SENDTO : 0;
        Exchange &e = exchanges_.emplace_back(Exchange{endpoint, w.clock.wall_s + timeout_s, refused});
        const uint32_t size = chance(5) ? 70'000 : pick(200);
        const std::string path = "/proc/self/fd/" + std::to_string(file_);
        if (kind == 0) tav_ipc_probe(ipc, &dest, on_status, &e);
        if (kind == 1) tav_ipc_send2(ipc, &dest, 2, nullptr, size, on_status, &e, timeout_s);
        if (kind == 2) tav_ipc_make_request(ipc, &dest, 1, nullptr, size, on_response, &e, timeout_s);
        if (kind == 3) tav_ipc_send_file(ipc, &dest, path.c_str(), on_status, &e, timeout_s);
        e.running = false;
    }
    // Something at random, in callbacks too.
    void act() {
        if (draining_ || depth_ > 4) return;
        ++depth_;
        const unsigned what = pick(20);
        if (what < 5) begin_exchange();
        if (what == 5 || what == 6) open_one();
        if (what == 7) handle_datagram();
        if (tav_ipc_st **endpoint = any_endpoint(); endpoint && what == 8) destroy(*endpoint);
        --depth_;
    }
    bool possible(const Exchange &e, int32_t code) const {
        if (e.running) return false;
        if (e.refused) return code == e.refused;
        if (code == IPC_ERR_CLOSED) return !*e.endpoint || (*e.endpoint)->closed;
        return e.answers.count(code) || (code == IPC_ERR_TIMEOUT && w.clock.wall_s > e.latest_s);
    }
    static int on_status(int32_t code, void *user) {
        auto &e = *static_cast<Exchange *>(user);
        EXPECT_EQ(++e.completions, 1);
        EXPECT_TRUE(current->possible(e, code)) << code;
        return current->act(), 0;
    }
    static int on_response(int32_t code, uint32_t, const void *, uint32_t, void *user) {
        return on_status(code, user);
    }

    // One of the oldest datagrams reaches the peer, which may answer it, or is refused.
    void handle_datagram() {
        std::vector<size_t> pending;
        for (size_t i = 0; i < w.event.sends.size() && pending.size() < 8; ++i)
            if (!w.event.sends[i].done) pending.push_back(i);
        if (pending.empty()) return;
        const size_t index = pending[pick(pending.size())];
        const tav_ipc_hdr_st header = sent(index).header;
        const bool refused = chance(10);
        w.event.complete(index, refused ? CL_EV_IO + static_cast<int>(pick(4)) : CL_EV_OK);
        if (!refused && !draining_ && tavipc::fragment_sequence(header) == 0 && chance(80)) answer(header);
    }
    void answer(const tav_ipc_hdr_st &message) {
        const int32_t codes[] = {0, 0, 0, 0, 0, 0, -106, 1005}, code = codes[pick(8)];
        const bool response = message.flags & IPC_FLAG_REQUEST && chance(80);
        asked_[message.reqid] = message;
        Datagram reply{"", {}, bytes_of(code)};
        reply.header.flags = response ? IPC_FLAG_RESPONSE : IPC_FLAG_ACK;
        reply.header.reqid = message.reqid;
        if (chance(5)) reply.header.reqid = std::next(asked_.begin(), pick(asked_.size()))->first; // another
        for (int copies = chance(15) ? 2 : 1; copies > 0; --copies) {
            const std::string path = "/var/zon_ipc2/" + std::string(tavipc::name_text(message.src));
            const cl_dunix_t socket = w.event.socket_at(path);
            if (socket) note_answer(asked_[reply.header.reqid], response ? 0 : code);
            if (socket) w.event.deliver(socket, reply.bytes());
        }
    }
    void note_answer(const tav_ipc_hdr_st &message, int32_t code) {
        Exchange &e = exchanges_[message.dest.hostid];
        if (code != 0 || !(message.flags & IPC_FLAG_FILE)) return void(e.answers.insert(code));
        e.confirmed.insert(message.reqid);
        if (e.confirmed.size() == 3) e.answers.insert(static_cast<int32_t>(message.cmd));
    }
    void pass_second() { ++w.clock.wall_s, w.event.advance(1000); }
    void step() {
        if (!any_endpoint()) open_one();
        const unsigned what = pick(100);
        if (what < 30) return begin_exchange();
        if (what < 75) return handle_datagram();
        if (what < 80) return w.event.advance(pick(60));
        if (what < 85) return pass_second();
        if (what < 90) w.event.fail_send = static_cast<int>(pick(4));
        act();
    }

    std::mt19937 random_;
    const int file_ = memfd_create("source", MFD_CLOEXEC);
    std::deque<tav_ipc_st *> endpoints_;
    std::deque<Exchange> exchanges_;
    std::map<uint32_t, tav_ipc_hdr_st> asked_; // what the peer received, by message id
    unsigned depth_ = 0;
    bool draining_ = false;
    static inline ExactlyOnce *current;
};

TEST_P(ExactlyOnce, WhateverCallbacksAndPeerDo) {
    while (exchanges_.size() < 1000 && !HasFailure()) step();
    draining_ = true; // nothing is answered any more
    for (int second = 0; second < 20; ++second) {
        while (w.event.pending() > 0) handle_datagram();
        pass_second();
    }
    for (tav_ipc_st *&ipc : endpoints_)
        if (ipc) destroy(ipc);
    w.event.advance(1);
    for (const Exchange &e : exchanges_) EXPECT_EQ(e.completions, 1);
}
INSTANTIATE_TEST_SUITE_P(Seeds, ExactlyOnce, testing::Range(1u, 21u));

} // namespace
