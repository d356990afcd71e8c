// Requests, confirmed messages and probes: what they send, and how each completes once, whatever its callback
// does.
#include <set>

#include <gmock/gmock.h>

#include "endpoint_world.h"

using testing::ElementsAre;

namespace {

enum Kind { kRequest, kConfirmed, kProbe };

std::vector<std::string> done;       // "tag:code", of a response callback "tag:code/cmd/payload"
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

class Exchanges : public EndpointWorld {
  protected:
    Exchanges() { done = {}, then = nullptr; }

    void start(tav_ipc_st *ipc, Kind kind, uintptr_t tag, int32_t timeout_s = 5) {
        void *user = reinterpret_cast<void *>(tag);
        const tav_addr_st to = address("beta", 2, 0x88);
        if (kind == kRequest) tav_ipc_make_request(ipc, &to, 7, "ask", 3, on_response, user, timeout_s);
        if (kind == kConfirmed) tav_ipc_send2(ipc, &to, 8, "tell", 4, on_status, user, timeout_s);
        if (kind == kProbe) tav_ipc_probe(ipc, &to, on_status, user);
    }
    void answer(tav_ipc_st *ipc, uint16_t flags, const std::string &payload, uint32_t reqid = last_id()) {
        Datagram reply{"", {}, payload};
        reply.header.flags = flags;
        reply.header.reqid = reqid;
        reply.header.cmd = 9;
        receive(ipc, reply);
    }
    static uint32_t last_id() { return tavipc::last_reqid(); }
    // The next message gets the id of the last one, as if the ids had wrapped.
    static void reuse_last_id() { tavipc::reset_sending(last_id() - 1); }
    void pass_seconds(time_t seconds) { w.clock.wall_s += seconds, w.event.advance(1000); }
    static void in_next_callback(const std::function<void()> &action) {
        then = [=](uintptr_t) { then = nullptr, action(); };
    }
};

TEST_F(Exchanges, SendTheirFlagsIdAndPayload) {
    tav_ipc_st *ipc = open();
    const tav_addr_st dest = address("beta", 2, 0x88);
    for (const Kind kind : {kRequest, kConfirmed, kProbe}) start(ipc, kind, 1);
    for (const uint32_t reqid : {77, 0}) tav_ipc_response(ipc, &dest, reqid, 9, "yes", 3);
    std::vector<std::string> out; // flags, id, command, flags of the address: payload
    for (size_t i = 0; i < w.event.sends.size(); ++i) {
        const auto &[path, h, payload] = sent(i);
        char text[64];
        snprintf(text, sizeof text, "0x%x %u %u 0x%x: ", h.flags, h.reqid, h.cmd, h.dest.flags);
        out.push_back(text + payload);
    }
    EXPECT_THAT(out, ElementsAre("0x10 1 7 0x88: ask", "0x2 2 8 0x88: tell",
                                 "0xa 3 0 0x0: ", "0x20 77 9 0x88: yes", "0x20 4 9 0x88: yes"));
}

TEST_F(Exchanges, AnAnswerCompletesOnce) {
    const std::tuple<Kind, uint16_t, std::string, const char *> cases[] = {
        {kRequest, IPC_FLAG_RESPONSE, "abc", "1:0/9/abc"},
        {kRequest, IPC_FLAG_RESPONSE | IPC_FLAG_ACK, "", "1:0/9/"},
        {kRequest, IPC_FLAG_ACK, bytes_of(-109), "1:-109/0/null"},
        {kConfirmed, IPC_FLAG_ACK, bytes_of(1005), "1:1005"},
        {kProbe, IPC_FLAG_ACK, "ab", "1:0"}};
    tav_ipc_st *ipc = open();
    for (const auto &[kind, flags, payload, result] : cases) {
        start(ipc, kind, 1);
        answer(ipc, flags, payload, last_id() + 1000);
        EXPECT_THAT(done, ElementsAre());
        for (int copy = 0; copy < 2; ++copy) answer(ipc, flags, payload);
        pass_seconds(8);
        EXPECT_THAT(std::exchange(done, {}), ElementsAre(result));
    }
}

TEST_F(Exchanges, TimeOutsCountWholeSeconds) {
    const std::tuple<Kind, int32_t, int64_t> cases[] = {
        /* seconds; due 0: at the next tick */
        {kRequest, 1, 2},           {kConfirmed, 0, 1}, {kConfirmed, -1, 0},
        {kConfirmed, INT32_MIN, 0}, {kProbe, 0, 6},     {kConfirmed, INT32_MAX, INT64_C(1) << 31}};
    tav_ipc_st *ipc = open();
    then = [&](uintptr_t) { EXPECT_EQ(w.log.count("timeout"), 0) << "the line comes after the callback"; };
    for (const auto &[kind, timeout_s, due_s] : cases) {
        w.log.lines.clear();
        const int64_t expire_ms = (w.clock.wall_s + int64_t{kind == kProbe ? 5 : timeout_s}) * 1000;
        start(ipc, kind, 1, timeout_s);
        if (due_s > 0) pass_seconds(due_s - 1);
        EXPECT_THAT(done, ElementsAre()) << timeout_s;
        pass_seconds(due_s > 0);
        EXPECT_THAT(std::exchange(done, {}), ElementsAre(kind == kRequest ? "1:-102/0/null" : "1:-102"));
        const std::string id = std::to_string(last_id());
        EXPECT_EQ(w.log.count("req[" + id + "] timeout, expire=" + std::to_string(expire_ms), 4), 1);
        answer(ipc, IPC_FLAG_ACK, ""); // too late
        EXPECT_THAT(done, ElementsAre());
    }
}

TEST_F(Exchanges, DestructionCompletesWhatIsOutstanding) {
    tav_ipc_st *ipc = open();
    for (uintptr_t tag = 1; tag <= 60; ++tag) start(ipc, tag % 2 ? kRequest : kConfirmed, tag);
    tav_ipc_send2(ipc, tav_ipc_get_local_addr(ipc), 1, nullptr, 0, nullptr, nullptr, 1); // no callback
    then = [&](uintptr_t tag) {
        if (tag > 60) return;
        tav_ipc_destroy(ipc);                       // no effect: it is being destroyed
        start(ipc, kRequest, tag + 100);            // sends nothing, completes later
        EXPECT_EQ(send(ipc, "last words"), IPC_OK); // the queue still exists
    };
    close(ipc);
    EXPECT_EQ(done.size(), 60u);
    EXPECT_EQ(w.event.sends.size(), 61u + 60);
    w.event.advance(1);
    EXPECT_THAT(done, testing::Each(testing::HasSubstr(":-103")));
    EXPECT_EQ(std::set(done.begin(), done.end()).size(), 120u);
}

TEST_F(Exchanges, ANewExchangeClosesTheOneWhoseIdItTakesOver) {
    tav_ipc_st *ipc = open();
    start(ipc, kRequest, 1, 2);
    reuse_last_id();
    start(ipc, kConfirmed, 2, 9);
    pass_seconds(3); // past the time-out of the older one
    answer(ipc, IPC_FLAG_ACK, "");
    start(ipc, kConfirmed, 3);
    in_next_callback([=, this] { reuse_last_id(), start(ipc, kConfirmed, 4); });
    answer(ipc, IPC_FLAG_ACK, ""); // the end of the older one does not remove the new one
    answer(ipc, IPC_FLAG_ACK, bytes_of(5));
    start(ipc, kConfirmed, 5);
    in_next_callback([=, this] { close(ipc); });
    reuse_last_id();
    start(ipc, kConfirmed, 6);
    EXPECT_THAT(done, ElementsAre("1:-103/0/null", "2:0", "3:0", "4:5", "5:-103"));
    w.event.advance(1);
    EXPECT_EQ(done.back(), "6:-103") << "not from inside its call";
}

} // namespace
