// Requests, confirmed messages and probes, without and with an id: what they send, and how each completes
// once, whatever its callback does.
#include <cerrno>

#include "endpoint_world.h"
#include "tavipc/tav_ipc_ext.h"

using testing::ElementsAre;

enum Kind { kRequest, kConfirmed, kProbe, kIdRequest, kIdConfirmed, kIdProbe };

std::vector<std::string> done;       // "tag:code", of a callback with an answer "tag:code/cmd/payload"
std::function<void(uintptr_t)> then; // runs in every callback

int note(void *user, const std::string &text) {
    const auto tag = reinterpret_cast<uintptr_t>(user);
    done.push_back(std::to_string(tag) + ':' + text);
    if (const auto action = then) action(tag);
    return -1;
}
int on_status(int32_t code, void *user) { return note(user, std::to_string(code)); }
int on_response(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
    const std::string payload = data ? std::string(static_cast<const char *>(data), len) : "null";
    return note(user, std::to_string(code) + '/' + std::to_string(cmd) + '/' + payload);
}
void on_exchange(uint64_t, int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
    on_response(code, cmd, data, len, user);
}

struct Exchanges : EndpointWorld {
    Exchanges() { done = {}, then = nullptr; }

    // The time-out is in seconds, of an exchange with an id in milliseconds. Returns the id.
    uint64_t start(tav_ipc_st *ipc, Kind kind, uintptr_t tag, int32_t timeout = 5) {
        void *user = reinterpret_cast<void *>(tag);
        const tav_addr_st to = address("beta", 2, 0x88);
        if (kind == kRequest) tav_ipc_make_request(ipc, &to, 7, "ask", 3, on_response, user, timeout);
        if (kind == kConfirmed) tav_ipc_send2(ipc, &to, 8, "tell", 4, on_status, user, timeout);
        if (kind == kProbe) tav_ipc_probe(ipc, &to, on_status, user);
        if (kind < kIdRequest) return 0;
        return tav_ipc_exchange_start(ipc, kind - kIdRequest, &to, 7, "ask", 3,
                                      static_cast<uint32_t>(timeout), on_exchange, user);
    }
    // The next message gets the id of the last one, as if the ids had wrapped.
    static void reuse_last_id() { tavipc::reset_sending(last_id() - 1); }
    void pass_seconds(time_t seconds) { w.clock.wall_s += seconds, w.event.advance(1000); }
    static void in_next_callback(const std::function<void()> &action) {
        then = [=](uintptr_t) { then = nullptr, action(); };
    }
    tav_ipc_st *ipc_ = open();
};

TEST_F(Exchanges, SendTheirFlagsIdAndPayload) {
    const tav_addr_st dest = address("beta", 2, 0x88);
    for (const Kind kind : {kRequest, kConfirmed, kProbe, kIdRequest, kIdConfirmed, kIdProbe})
        start(ipc_, kind, 1);
    for (const uint32_t reqid : {77, 0}) tav_ipc_response(ipc_, &dest, reqid, 9, "yes", 3);
    EXPECT_EQ(tav_ipc_response2(ipc_, &dest, 78, 9, "yes", 3), IPC_OK);
    EXPECT_EQ(tav_ipc_response2(ipc_, &dest, 0, 9, "yes", 3), IPC_ERR_SENDTO);
    std::vector<std::string> out; // flags, id, command, flags of the address: payload
    for (size_t i = 0; i < w.event.sends.size(); ++i) {
        const auto &[path, h, payload] = sent(i);
        char text[64];
        snprintf(text, sizeof text, "0x%x %u %u 0x%x: ", h.flags, h.reqid, h.cmd, h.dest.flags);
        out.push_back(text + payload);
    }
    EXPECT_THAT(out, ElementsAre("0x10 1 7 0x88: ask", "0x2 2 8 0x88: tell",
                                 "0xa 3 0 0x0: ", "0x10 4 7 0x88: ask", "0x2 5 7 0x88: ask", "0xa 6 0 0x0: ",
                                 "0x20 77 9 0x88: yes", "0x20 7 9 0x88: yes", "0x20 78 9 0x88: yes"));
}

TEST_F(Exchanges, AnAnswerCompletesOnce) {
    const std::tuple<Kind, uint16_t, std::string, const char *> cases[] = {
        {kRequest, IPC_FLAG_RESPONSE | IPC_FLAG_ACK, "abc", "1:0/9/abc"},
        {kRequest, IPC_FLAG_ACK, bytes_of(-109), "1:-109/0/null"},
        {kConfirmed, IPC_FLAG_ACK, bytes_of(1005), "1:1005"},
        {kProbe, IPC_FLAG_ACK, "ab", "1:0"},
        {kIdRequest, IPC_FLAG_RESPONSE, "abc", "1:0/9/abc"},
        {kIdConfirmed, IPC_FLAG_ACK, bytes_of(1005), "1:1005/0/null"}};
    for (const auto &[kind, flags, payload, result] : cases) {
        start(ipc_, kind, 1);
        answer(ipc_, flags, payload, last_id() + 1000);
        EXPECT_THAT(done, ElementsAre());
        for (int copy = 0; copy < 2; ++copy) answer(ipc_, flags, payload);
        pass_seconds(8);
        EXPECT_THAT(std::exchange(done, {}), ElementsAre(result));
    }
    EXPECT_EQ(ipc_req_manager_count(&ipc_->req_mgr), 0u);
    EXPECT_STREQ(tav_ipc_strerror(1), "Unkown error");
}

TEST_F(Exchanges, TimeOutsCountWholeSeconds) {
    const std::tuple<Kind, int32_t, int64_t> cases[] = {// due after 0 seconds: at the next tick
                                                        {kRequest, 1, 2},
                                                        {kConfirmed, INT32_MIN, 0},
                                                        {kConfirmed, INT32_MAX, INT64_C(1) << 31},
                                                        {kProbe, 0, 6}};
    then = [&](uintptr_t) { EXPECT_EQ(w.log.count("timeout"), 0) << "the line comes after the callback"; };
    for (const auto &[kind, timeout_s, due_s] : cases) {
        w.log.lines.clear();
        const int64_t expire_ms = (w.clock.wall_s + int64_t{kind == kProbe ? 5 : timeout_s}) * 1000;
        start(ipc_, kind, 1, timeout_s);
        if (due_s > 0) pass_seconds(due_s - 1);
        EXPECT_THAT(done, ElementsAre()) << timeout_s;
        pass_seconds(due_s > 0);
        EXPECT_THAT(std::exchange(done, {}), ElementsAre(kind == kRequest ? "1:-102/0/null" : "1:-102"));
        const std::string id = std::to_string(last_id());
        EXPECT_EQ(w.log.count("req[" + id + "] timeout, expire=" + std::to_string(expire_ms), 4), 1);
    }
}

TEST_F(Exchanges, WithAnIdTimeOutByTheMonotonicClock) {
    const uint64_t later = start(ipc_, kIdConfirmed, 1, 1500);
    start(ipc_, kIdRequest, 2, 20);
    w.clock.wall_s += 3600;
    w.event.advance(1499); // a tick of the manager included
    EXPECT_THAT(done, ElementsAre("2:-102/0/null"));
    then = [&](uintptr_t) { EXPECT_EQ(tav_ipc_exchange_cancel(ipc_, later), -1) << "it is completing"; };
    w.event.advance(5000);
    EXPECT_THAT(done, ElementsAre("2:-102/0/null", "1:-102/0/null"));
}

TEST_F(Exchanges, CancellationRunsTheCallbackOnce) {
    const tav_addr_st dest = address("beta");
    const uint64_t id = start(ipc_, kIdRequest, 1), other = start(ipc_, kIdRequest, 2);
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc_, id), 0);
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc_, id), -1);
    EXPECT_EQ(errno, ENOENT);
    tav_ipc_send2(ipc_, &dest, 1, nullptr, 0, nullptr, nullptr, 1);
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc_, last_id()), -1) << "it has no such id";
    then = [&](uintptr_t) { close(ipc_); };
    EXPECT_EQ(tav_ipc_exchange_cancel(ipc_, other), 0);
    EXPECT_THAT(done, ElementsAre("1:-113/0/null", "2:-113/0/null"));
}

TEST_F(Exchanges, WithAnIdEndWithoutAPeerUnlessTheyWait) {
    const tav_addr_st beta = address("beta", 0), far = address("beta", 3);
    const auto begin = [&](const tav_addr_st &to, int kind, uintptr_t tag, const std::string &payload = "") {
        return tav_ipc_exchange_start(ipc_, kind, &to, 7, payload.data(),
                                      static_cast<uint32_t>(payload.size()), 60'000, on_exchange,
                                      reinterpret_cast<void *>(tag));
    };
    const auto refuse = [&] { w.event.complete_all(CL_EV_NO_PEER); };
    begin(beta, TAV_IPC_EXCHANGE_REQUEST, 1, pattern(130'000)), refuse();
    EXPECT_THAT(done, ElementsAre()) << "from the loop";
    w.event.advance(0);
    EXPECT_THAT(std::exchange(done, {}), ElementsAre("1:-114/0/null"));
    begin(far, TAV_IPC_EXCHANGE_PROBE, 2); // through the proxy
    begin(beta, TAV_IPC_EXCHANGE_REQUEST, 3);
    tav_ipc_response(ipc_, &beta, last_id(), 9, "", 0); // to a peer's request of the same id
    w.event.complete(4, CL_EV_OK), refuse(), w.event.advance(999);
    EXPECT_THAT(done, ElementsAre()) << "neither the probe nor the response ends its exchange";
    w.event.complete_all(), w.event.sends.clear();
    const uint64_t id = begin(beta, TAV_IPC_EXCHANGE_CONFIRMED | TAV_IPC_EXCHANGE_WAIT_FOR_PEER, 4);
    for (int times = 0; times < 40; ++times) refuse(), w.event.advance(1000);
    EXPECT_EQ(w.event.sends.size(), 41u);
    tav_ipc_exchange_cancel(ipc_, id), refuse(), w.event.advance(10'000);
    EXPECT_EQ(w.event.pending(), 0u) << "nobody waits any more";
}

TEST_F(Exchanges, WithAnIdCannotBeginDuringDestruction) {
    start(ipc_, kIdProbe, 1, 1000);
    then = [&](uintptr_t) {
        EXPECT_EQ(start(ipc_, kIdProbe, 2), 0u);
        EXPECT_EQ(errno, ESHUTDOWN);
        EXPECT_EQ(send(ipc_, "last words"), IPC_OK) << "the queue still exists";
    };
    close(ipc_);
    EXPECT_THAT(done, ElementsAre("1:-103/0/null"));
}

TEST_F(Exchanges, ANewExchangeClosesTheOneWhoseIdItTakesOver) {
    start(ipc_, kRequest, 1, 2);
    reuse_last_id();
    start(ipc_, kConfirmed, 2, 9);
    pass_seconds(3); // past the time-out of the older one
    answer(ipc_, IPC_FLAG_ACK, "");
    start(ipc_, kConfirmed, 3);
    in_next_callback([=, this] { reuse_last_id(), start(ipc_, kConfirmed, 4); });
    answer(ipc_, IPC_FLAG_ACK, ""); // the end of the older one does not remove the new one
    answer(ipc_, IPC_FLAG_ACK, bytes_of(5));
    start(ipc_, kConfirmed, 5);
    in_next_callback([=, this] { close(ipc_); });
    reuse_last_id();
    start(ipc_, kConfirmed, 6);
    EXPECT_THAT(done, ElementsAre("1:-103/0/null", "2:0", "3:0", "4:5", "5:-103"));
    w.event.advance(1);
    EXPECT_EQ(done.back(), "6:-103") << "not from inside its call";
}

TEST_F(Exchanges, WithAnIdReportWhyTheyCannotBegin) {
    const auto reason = [&](tav_ipc_st *ipc, int kind, const char *name = "beta", uint32_t size = 3) {
        const tav_addr_st dest = address(name);
        return tav_ipc_exchange_start(ipc, kind, &dest, 7, nullptr, size, 1, on_exchange, nullptr) ? 0
                                                                                                   : errno;
    };
    EXPECT_EQ(reason(ipc_, 3), EINVAL);
    EXPECT_EQ(reason(ipc_, 0, "a/b"), EINVAL);
    EXPECT_EQ(reason(ipc_, 0, "beta", TAV_IPC_MESSAGE_MAX + 1), EMSGSIZE);
    module(ipc_)->sending_bytes = 64 << 20;
    EXPECT_EQ(reason(ipc_, 0), ENOBUFS);
    module(ipc_)->sending_bytes = 0;
    w.event.fail_timers = 1;
    EXPECT_EQ(reason(ipc_, 0), ENOMEM);
    start(nullptr, kProbe, 1); // of those without an id, the callback reports it later
    EXPECT_THAT(done, ElementsAre());
    w.event.advance(5000);
    EXPECT_THAT(done, ElementsAre("1:-101"));
}
