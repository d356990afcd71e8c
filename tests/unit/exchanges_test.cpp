// Requests, confirmed messages and probes: what they send, and how each completes once, whatever its callback
// does.
#include <set>

#include <gmock/gmock.h>

#include "endpoint_world.h"

using testing::ElementsAre;
using testing::IsEmpty;

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
    const auto *text = static_cast<const char *>(data);
    return note(user, std::to_string(code) + '/' + std::to_string(cmd) + '/' +
                          (text ? std::string(text, len) : "null" + std::string(len, '!')));
}

class Exchanges : public EndpointWorld {
  protected:
    Exchanges() { done = {}, then = nullptr; }

    void start(tav_ipc_st *ipc, Kind kind, uintptr_t tag, int32_t timeout_s = 5,
               const tav_addr_st &dest = address("beta", 2, 0x88)) {
        void *user = reinterpret_cast<void *>(tag);
        const tav_addr_st *to = dest.name[0] ? &dest : nullptr;
        if (kind == kRequest) tav_ipc_make_request(ipc, to, 7, "ask", 3, on_response, user, timeout_s);
        if (kind == kConfirmed) tav_ipc_send2(ipc, to, 8, "tell", 4, on_status, user, timeout_s);
        if (kind == kProbe) tav_ipc_probe(ipc, to, on_status, user);
    }
    void answer(tav_ipc_st *ipc, uint16_t flags, const std::string &payload, uint32_t reqid = last_id()) {
        Datagram reply{"", {}, payload};
        reply.header.flags = flags;
        reply.header.reqid = reqid;
        reply.header.cmd = 9;
        receive(ipc, reply);
    }
    static uint32_t last_id() { return tavipc::process_state().last_reqid; }
    // The next message gets the id of the last one, as if the ids had wrapped.
    static void reuse_last_id() { tavipc::process_state().last_reqid = last_id() - 1; }
    void pass_seconds(time_t seconds) {
        w.clock.wall_s += seconds;
        w.event.advance(1000);
    }
    static void in_next_callback(const std::function<void()> &action) {
        then = [=](uintptr_t) { then = nullptr, action(); };
    }
};

TEST_F(Exchanges, SendTheirFlagsIdAndPayload) {
    tav_ipc_st *ipc = open();
    const tav_addr_st dest = address("beta", 2, 0x88);
    ipc->use_count = 1; // another thread is inside
    ipc->owner_thread = pthread_self() + 1;
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
    EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 3u) << "responses are not waited for";
    for (const std::string label : {"make_request", "send2", "probe", "response"})
        EXPECT_GE(w.log.count("[ipc_thread_safe: tav_ipc_" + label + "]concurrent", 1), 1) << label;
    ipc->use_count = 0;
}

TEST_F(Exchanges, AnAnswerCompletesOnce) {
    const struct {
        Kind kind;
        uint16_t flags;
        std::string payload;
        const char *result;
    } cases[] = {{kRequest, IPC_FLAG_RESPONSE, "abc", "1:0/9/abc"},
                 {kRequest, IPC_FLAG_RESPONSE | IPC_FLAG_ACK, "", "1:0/9/"},
                 {kRequest, IPC_FLAG_ACK, bytes_of(-109), "1:-109/0/null"},
                 {kRequest, IPC_FLAG_ACK, "ab", "1:0/0/null"},
                 {kConfirmed, IPC_FLAG_ACK, bytes_of(1005), "1:1005"},
                 {kConfirmed, IPC_FLAG_ACK, bytes_of(-109) + 'x', "1:0"},
                 {kConfirmed, IPC_FLAG_RESPONSE, bytes_of(-109), "1:0"},
                 {kProbe, IPC_FLAG_ACK, bytes_of(0), "1:0"}};
    tav_ipc_st *ipc = open();
    for (const auto &[kind, flags, payload, result] : cases) {
        start(ipc, kind, 1);
        answer(ipc, flags, payload, last_id() + 1000);
        EXPECT_THAT(done, IsEmpty());
        for (int copy = 0; copy < 2; ++copy) answer(ipc, flags, payload);
        pass_seconds(8);
        EXPECT_THAT(std::exchange(done, {}), ElementsAre(result));
    }
}

TEST_F(Exchanges, TimeOutsCountWholeSeconds) {
    const struct {
        Kind kind;
        int32_t timeout_s;
        int64_t due_s; // of the wall clock after the start; 0: the next tick
        const char *result;
    } cases[] = {{kRequest, 1, 2, "1:-102/0/null"}, {kConfirmed, 0, 1, "1:-102"},
                 {kConfirmed, -1, 0, "1:-102"},     {kConfirmed, INT32_MIN, 0, "1:-102"},
                 {kProbe, 0, 6, "1:-102"},          {kConfirmed, INT32_MAX, INT64_C(1) << 31, "1:-102"}};
    tav_ipc_st *ipc = open();
    then = [&](uintptr_t) { EXPECT_EQ(w.log.count("timeout"), 0) << "the line comes behind the callback"; };
    for (const auto &[kind, timeout_s, due_s, result] : cases) {
        SCOPED_TRACE(timeout_s);
        w.log.lines.clear();
        const int64_t expire_ms = (w.clock.wall_s + int64_t{kind == kProbe ? 5 : timeout_s}) * 1000;
        start(ipc, kind, 1, timeout_s);
        if (due_s > 0) pass_seconds(due_s - 1);
        EXPECT_THAT(done, IsEmpty());
        pass_seconds(due_s > 0);
        EXPECT_THAT(std::exchange(done, {}), ElementsAre(result));
        const std::string id = std::to_string(last_id());
        EXPECT_EQ(w.log.count("req[" + id + "] timeout, expire=" + std::to_string(expire_ms), 4), 1);
        answer(ipc, IPC_FLAG_ACK, ""); // too late
        EXPECT_THAT(done, IsEmpty());
    }
}

TEST_F(Exchanges, ARefusedSendCompletesFromATimer) {
    tav_ipc_st *ipc = open();
    for (const Kind kind : {kRequest, kConfirmed, kProbe}) {
        start(ipc, kind, 1, 5, address("a/b"));
        start(ipc, kind, 2, 5, address(""));
        start(nullptr, kind, 3);
    }
    tav_ipc_send2(ipc, nullptr, 1, nullptr, 0, nullptr, nullptr, 1); // no callback
    close(ipc);                                                      // the timers do not need it
    w.event.advance(0);
    EXPECT_THAT(done, IsEmpty());
    w.event.advance(1);
    EXPECT_THAT(done, ElementsAre("1:-101/0/null", "2:-101/0/null", "3:-101/0/null", "1:-101", "2:-101",
                                  "3:-101", "1:-101", "2:-101", "3:-101"));
}

TEST_F(Exchanges, DestructionCompletesWhatIsOutstanding) {
    tav_ipc_st *ipc = open();
    const tav_addr_st dest = address("beta");
    for (uintptr_t tag = 1; tag <= 60; ++tag) start(ipc, tag % 2 ? kRequest : kConfirmed, tag);
    tav_ipc_make_request(ipc, &dest, 1, nullptr, 0, nullptr, nullptr, 1); // no callback
    const size_t before = w.event.sends.size();
    then = [&](uintptr_t tag) {
        if (tag > 60) return;
        tav_ipc_destroy(ipc);                       // no effect: it is being destroyed
        start(ipc, kConfirmed, tag + 100);          // sends nothing, completes later
        EXPECT_EQ(send(ipc, "last words"), IPC_OK); // the queue still exists
    };
    close(ipc);
    EXPECT_EQ(done.size(), 60u);
    EXPECT_EQ(w.event.sends.size(), before + 60);
    w.event.advance(1);
    EXPECT_THAT(done, testing::Each(testing::HasSubstr(":-103")));
    EXPECT_EQ(std::set(done.begin(), done.end()).size(), 120u);
}

TEST_F(Exchanges, AnswerAndTimeOutDuringTheCallbackAreIgnored) {
    tav_ipc_st *ipc = open();
    start(ipc, kRequest, 1);
    in_next_callback([=, this] {
        pass_seconds(10);
        answer(ipc, IPC_FLAG_RESPONSE, "twice");
        start(ipc, kConfirmed, 2, -1); // is not disturbed
    });
    answer(ipc, IPC_FLAG_RESPONSE, "once");
    w.event.advance(2000);
    EXPECT_THAT(done, ElementsAre("1:0/9/once", "2:-102"));
}

TEST_F(Exchanges, ANewExchangeClosesTheOneWhoseIdItTakesOver) {
    tav_ipc_st *ipc = open();
    start(ipc, kRequest, 1, 2);
    reuse_last_id();
    start(ipc, kConfirmed, 2, 9);
    pass_seconds(3); // past the time-out of the older one
    answer(ipc, IPC_FLAG_ACK, "");
    EXPECT_THAT(std::exchange(done, {}), ElementsAre("1:-103/0/null", "2:0"));

    start(ipc, kConfirmed, 3);
    in_next_callback([=, this] { reuse_last_id(), start(ipc, kConfirmed, 4); });
    answer(ipc, IPC_FLAG_ACK, ""); // its end must not remove the new one
    answer(ipc, IPC_FLAG_ACK, bytes_of(5));
    EXPECT_THAT(std::exchange(done, {}), ElementsAre("3:0", "4:5"));

    start(ipc, kConfirmed, 5);
    in_next_callback([=, this] { close(ipc); });
    reuse_last_id();
    start(ipc, kConfirmed, 6);
    EXPECT_THAT(done, ElementsAre("5:-103")) << "the new one not from inside its call";
    w.event.advance(1);
    EXPECT_EQ(done.back(), "6:-103");
}

} // namespace
