// Every exchange completes exactly once, with a code that it can have: a thousand random ones, against a peer
// that answers late, twice, wrongly or never, while callbacks do everything that the test does. The counters
// of datagrams balance after every step.
#include <random>
#include <set>

#include "endpoint_world.h"

// The key of the hash tables, which the order of their walks depends on.
extern "C" __attribute__((visibility("default"))) ssize_t getrandom(void *buffer, size_t size, unsigned) {
    return std::memset(buffer, 7, size), static_cast<ssize_t>(size);
}

namespace {

struct Exchange {
    tav_ipc_st **endpoint; // null when it is gone
    time_t latest_s;       // times out after it
    bool running = true;   // the call that starts it
    int completions = 0;
    std::set<int32_t> answers{}; // codes that the peer sent, and the file's id
};

class ExactlyOnce : public EndpointWorld, public testing::WithParamInterface<unsigned> {
  protected:
    ExactlyOnce() : random_(GetParam()) { current = this; }
    unsigned pick(size_t n) { return static_cast<unsigned>(random_() % n); }
    bool chance(unsigned percent) { return pick(100) < percent; }
    void step() {
        if (chance(10)) // null: the name is in use
            if (tav_ipc_st *ipc = tav_ipc_create(chance(50) ? "even" : "odd")) endpoints_.push_back(ipc);
        if (endpoints_.empty()) return;
        tav_ipc_st **endpoint =
            &endpoints_[endpoints_.size() - 1 - pick(std::min<size_t>(3, endpoints_.size()))];
        const unsigned what = pick(100);
        if (what < 40 && *endpoint) begin_exchange(endpoint);
        if (what >= 40 && what < 80) handle_datagram();
        if (what >= 80 && what < 90) pass_time(chance(30), 1000);
        if (what >= 90 && what < 95) w.event.fail_send = static_cast<int>(pick(4));
        if (*endpoint && !(*endpoint)->closed) expect_balanced(*endpoint, "peer");
        if (what >= 95 && *endpoint) destroy(*endpoint);
    }
    static void destroy(tav_ipc_st *&ipc) {
        const bool outermost = !ipc->closed;
        tav_ipc_destroy(ipc);
        if (outermost) ipc = nullptr;
    }
    void begin_exchange(tav_ipc_st **endpoint) {
        tav_ipc_st *ipc = *endpoint;
        const unsigned kind = pick(4);
        const int32_t timeout_s = kind == 0 ? 5 : static_cast<int>(pick(6)) - 1;
        // Datagrams carry the host id unchanged: it identifies the exchange.
        const tav_addr_st dest = address("peer", 2, 0, static_cast<uint32_t>(exchanges_.size()));
        Exchange &e = exchanges_.emplace_back(Exchange{endpoint, w.clock.wall_s + timeout_s});
        const uint32_t size = chance(5) ? 70'000 : pick(200);
        if (kind == 0) tav_ipc_probe(ipc, &dest, on_status, &e);
        if (kind == 1) tav_ipc_send2(ipc, &dest, 2, nullptr, size, on_status, &e, timeout_s);
        const auto on_response = [](auto code, auto, auto, auto, auto user) { return on_status(code, user); };
        if (kind == 2) tav_ipc_make_request(ipc, &dest, 1, nullptr, size, on_response, &e, timeout_s);
        if (kind == 3) tav_ipc_send_file(ipc, &dest, "/proc/self/cmdline", on_status, &e, timeout_s);
        e.running = false;
    }
    static int on_status(int32_t code, void *user) {
        auto &e = *static_cast<Exchange *>(user);
        EXPECT_EQ(++e.completions, 1);
        EXPECT_TRUE(current->possible(e, code)) << code;
        if (!current->draining_ && current->chance(60)) current->step();
        return 0;
    }
    bool possible(const Exchange &e, int32_t code) const {
        if (e.running) return false;
        if (code == IPC_ERR_CLOSED) return !*e.endpoint || (*e.endpoint)->closed;
        return e.answers.count(code) || (code == IPC_ERR_TIMEOUT && w.clock.wall_s > e.latest_s);
    }
    void pass_time(time_t seconds, uint64_t ms) { w.clock.wall_s += seconds, w.event.advance(ms); }

    // One of the last datagrams is refused, or reaches the peer, which may answer it.
    void handle_datagram() {
        if (w.event.sends.empty()) return;
        const size_t index = w.event.sends.size() - 1 - pick(std::min<size_t>(20, w.event.sends.size()));
        if (w.event.sends[index].done) return;
        const tav_ipc_hdr_st header = sent(index).header;
        const int status = chance(10) ? CL_EV_IO + static_cast<int>(pick(4)) : CL_EV_OK;
        w.event.complete(index, status);
        if (status == CL_EV_OK && tavipc::fragment_sequence(header) == 0 && chance(80))
            for (int copies = chance(15) ? 2 : 1; copies > 0; --copies) answer(header);
    }
    void answer(const tav_ipc_hdr_st &message) {
        const int32_t code = chance(70) ? 0 : chance(50) ? -106 : 1005;
        Exchange &e = exchanges_[message.dest.hostid];
        const bool response = message.flags & IPC_FLAG_REQUEST && chance(80);
        Datagram reply{"", {}, bytes_of(code)};
        reply.header.flags = response ? IPC_FLAG_RESPONSE : IPC_FLAG_ACK;
        reply.header.reqid = message.reqid + (chance(5) ? 1'000'000 : 0); // or of nothing
        if (*e.endpoint == nullptr || !(*e.endpoint)->queue) return;
        const bool file = message.flags & IPC_FLAG_FILE;
        e.answers.insert(file && code == 0 ? static_cast<int32_t>(message.cmd) : response ? 0 : code);
        receive(*e.endpoint, reply);
    }

    std::mt19937 random_;
    std::deque<tav_ipc_st *> endpoints_;
    std::deque<Exchange> exchanges_;
    bool draining_ = false;
    static inline ExactlyOnce *current;
};

TEST_P(ExactlyOnce, WhateverCallbacksAndPeerDo) {
    while (exchanges_.size() < 1000 && !HasFailure()) step();
    draining_ = true; // nothing is answered any more
    for (int second = 0; second < 20; ++second, pass_time(1, 1000)) w.event.complete_all();
    for (tav_ipc_st *&ipc : endpoints_)
        if (ipc) destroy(ipc);
    w.event.advance(1);
    for (const Exchange &e : exchanges_) EXPECT_EQ(e.completions, 1);
}
INSTANTIATE_TEST_SUITE_P(Seeds, ExactlyOnce, testing::Range(1u, 21u) /* seeds */);

} // namespace
