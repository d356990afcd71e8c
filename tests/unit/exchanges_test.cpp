// Requests, confirmed messages and probes: what they send, how each completes, and that it does so once
// whatever its callback does.
#include "ipc/exchanges.h"

#include <optional>
#include <set>

#include <gmock/gmock.h>

#include "endpoint_world.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

enum Kind { kRequest, kConfirmed, kProbe };

class Exchanges : public EndpointWorld {
  protected:
    Exchanges() { current = this; }
    void TearDown() override {
        inside_ = nullptr;
        EndpointWorld::TearDown();
    }

    void start(tav_ipc_st *ipc, Kind kind, uintptr_t tag, int32_t timeout_s = 5,
               const std::optional<tav_addr_st> &dest = address("beta", 2, 0x88)) {
        void *user = reinterpret_cast<void *>(tag);
        const tav_addr_st *to = dest ? &*dest : nullptr;
        if (kind == kRequest) tav_ipc_make_request(ipc, to, 7, "ask", 3, on_response, user, timeout_s);
        if (kind == kConfirmed) tav_ipc_send2(ipc, to, 8, "tell", 4, on_status, user, timeout_s);
        if (kind == kProbe) tav_ipc_probe(ipc, to, on_status, user);
    }
    // The peer answers the message that was sent as the index-th.
    void answer(tav_ipc_st *ipc, size_t index, uint16_t flags, const std::string &payload = std::string(4, 0),
                uint32_t reqid_offset = 0) {
        Datagram reply{"", {}, payload};
        reply.header.flags = flags;
        reply.header.reqid = sent(index).header.reqid + reqid_offset;
        reply.header.cmd = 9;
        receive(ipc, reply);
    }

    // "tag:code" of a status callback, "tag:code/cmd/payload" of a response callback.
    std::vector<std::string> done_;
    std::function<void(uintptr_t tag)> inside_; // runs in every callback

  private:
    static int on_status(int32_t code, void *user) { return current->note(user, std::to_string(code)); }
    static int on_response(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
        const std::string payload =
            data ? std::string(static_cast<const char *>(data), len) : "null" + std::string(len, '!');
        return current->note(user, std::to_string(code) + '/' + std::to_string(cmd) + '/' + payload);
    }
    int note(void *user, const std::string &text) {
        const auto tag = reinterpret_cast<uintptr_t>(user);
        done_.push_back(std::to_string(tag) + ':' + text);
        if (const auto inside = inside_) inside(tag);
        return -1;
    }
    static inline Exchanges *current;
};

TEST_F(Exchanges, WhatGoesOut) {
    tav_ipc_st *ipc = open();
    for (const Kind kind : {kRequest, kConfirmed, kProbe}) start(ipc, kind, 1);
    const tav_addr_st dest = address("beta", 2, 0x88);
    tav_ipc_response(ipc, &dest, 77, 9, "yes", 3);
    tav_ipc_response(ipc, &dest, 0, 9, "yes", 3);
    std::vector<std::string> out; // flags id cmd flags of the address: payload
    for (size_t i = 0; i < w.event.sends.size(); ++i) {
        const Datagram d = sent(i);
        char text[64];
        snprintf(text, sizeof text, "0x%x %u %u 0x%x: ", d.header.flags, d.header.reqid, d.header.cmd,
                 d.header.dest.flags);
        out.push_back(text + d.payload);
    }
    EXPECT_THAT(out, ElementsAre("0x10 1 7 0x88: ask", "0x2 2 8 0x88: tell",
                                 "0xa 3 0 0x0: ", "0x20 77 9 0x88: yes", "0x20 4 9 0x88: yes"));
    EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 3u); // responses are not waited for
}

TEST_F(Exchanges, AnAnswerCompletesOnce) {
    struct Case {
        Kind kind;
        uint16_t flags;
        std::string payload;
        const char *result;
    };
    const Case cases[] = {
        {kRequest, IPC_FLAG_RESPONSE, "abc", "1:0/9/abc"},
        {kRequest, IPC_FLAG_RESPONSE, "", "1:0/9/"},
        {kRequest, IPC_FLAG_RESPONSE | IPC_FLAG_ACK, bytes_of(-109), "1:0/9/\x93\xFF\xFF\xFF"},
        {kRequest, IPC_FLAG_ACK, bytes_of(-109), "1:-109/0/null"},
        {kRequest, IPC_FLAG_ACK, "ab", "1:0/0/null"},
        {kConfirmed, IPC_FLAG_ACK, bytes_of(0), "1:0"},
        {kConfirmed, IPC_FLAG_ACK, bytes_of(1005), "1:1005"},
        {kConfirmed, IPC_FLAG_ACK, "ab", "1:0"},
        {kConfirmed, IPC_FLAG_ACK, bytes_of(-109) + 'x', "1:0"},
        {kConfirmed, IPC_FLAG_RESPONSE, bytes_of(-109), "1:0"},
        {kProbe, IPC_FLAG_ACK, bytes_of(0), "1:0"},
    };
    tav_ipc_st *ipc = open();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.result);
        done_.clear();
        start(ipc, c.kind, 1);
        const size_t index = w.event.sends.size() - 1;
        answer(ipc, index, c.flags, c.payload, 1000); // another id
        EXPECT_THAT(done_, IsEmpty());
        answer(ipc, index, c.flags, c.payload);
        EXPECT_THAT(done_, ElementsAre(c.result));
        answer(ipc, index, c.flags, c.payload);
        w.clock.wall_s += 8;
        w.event.advance(1000);
        EXPECT_EQ(done_.size(), 1u);
    }
}

TEST_F(Exchanges, TimeOutsCountWholeSeconds) {
    const struct {
        Kind kind;
        int32_t timeout_s;
        int64_t due_s; // of the wall clock, after the sending second; 0: the next tick within it
        const char *result;
    } cases[] = {{kRequest, 1, 2, "1:-102/0/null"},
                 {kConfirmed, 0, 1, "1:-102"},
                 {kConfirmed, -1, 0, "1:-102"},
                 {kConfirmed, INT32_MIN, 0, "1:-102"},
                 {kProbe, 0, 6, "1:-102"},
                 {kRequest, 3600, 3601, "1:-102/0/null"},
                 {kRequest, INT32_MAX, INT64_C(1) << 31, "1:-102/0/null"}};
    tav_ipc_st *ipc = open();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.timeout_s);
        w.clock.wall_s = 1'700'000'000;
        w.log.lines.clear();
        done_.clear();
        start(ipc, c.kind, 1, c.timeout_s);
        const uint32_t reqid = tavipc::last_reqid();
        inside_ = [&](uintptr_t) {
            EXPECT_EQ(w.log.count("timeout"), 0);
            EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 1u);
        };
        if (c.due_s > 0) {
            w.clock.wall_s += c.due_s - 1;
            w.event.advance(1000);
            EXPECT_THAT(done_, IsEmpty());
            ++w.clock.wall_s;
        }
        w.event.advance(1000);
        EXPECT_THAT(done_, ElementsAre(c.result));
        const int64_t expire = (1'700'000'000 + int64_t{c.kind == kProbe ? 5 : c.timeout_s}) * 1000;
        const std::string line =
            "req[" + std::to_string(reqid) + "] timeout, expire=" + std::to_string(expire);
        EXPECT_EQ(w.log.count(line, 4), 1);
        answer(ipc, w.event.sends.size() - 1, IPC_FLAG_ACK); // too late
        EXPECT_EQ(done_.size(), 1u);
        EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 0u);
    }
}

TEST_F(Exchanges, RefusedSendCompletesFromATimer) {
    const std::pair<bool, std::optional<tav_addr_st>> cases[] = {
        {true, address("a/b")}, {true, std::nullopt}, {false, address("beta")}, {false, std::nullopt}};
    for (const auto &[has_endpoint, dest] : cases)
        for (const Kind kind : {kRequest, kConfirmed, kProbe}) {
            tav_ipc_st *ipc = open();
            done_.clear();
            start(has_endpoint ? ipc : nullptr, kind, 1, 5, dest);
            EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 0u);
            close(ipc); // the timer does not need it
            EXPECT_THAT(done_, IsEmpty());
            w.event.advance(0);
            EXPECT_THAT(done_, IsEmpty());
            w.event.advance(1);
            EXPECT_THAT(done_, ElementsAre(kind == kRequest ? "1:-101/0/null" : "1:-101"));
        }
    EXPECT_EQ(w.event.sends.size(), 0u);
}

TEST_F(Exchanges, NobodyNeedsToBeTold) {
    tav_ipc_st *ipc = open();
    const tav_addr_st dests[] = {address("beta"), address("a/b")};
    for (const tav_addr_st &dest : dests) {
        tav_ipc_make_request(ipc, &dest, 1, nullptr, 0, nullptr, nullptr, 1);
        tav_ipc_send2(ipc, &dest, 1, nullptr, 0, nullptr, nullptr, 1);
        tav_ipc_probe(ipc, &dest, nullptr, nullptr);
    }
    answer(ipc, 0, IPC_FLAG_RESPONSE);
    w.clock.wall_s += 2;
    w.event.advance(1000);
    EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 1u); // the probe, completed by the end of the test
}

TEST_F(Exchanges, DestructionCompletesWhatIsOutstanding) {
    tav_ipc_st *ipc = open();
    for (uintptr_t tag = 1; tag <= 60; ++tag) start(ipc, tag % 2 ? kRequest : kConfirmed, tag);
    const size_t before = w.event.sends.size();
    inside_ = [&](uintptr_t tag) {
        if (tag > 60) return;
        tav_ipc_destroy(ipc);                       // it is being destroyed: no effect
        start(ipc, kConfirmed, tag + 100);          // sends nothing, completes later
        EXPECT_EQ(send(ipc, "last words"), IPC_OK); // the queue still lives
    };
    close(ipc);
    ASSERT_EQ(done_.size(), 60u);
    for (const std::string &text : done_) EXPECT_THAT(text, testing::HasSubstr(":-103"));
    EXPECT_EQ(std::set(done_.begin(), done_.end()).size(), 60u);
    EXPECT_EQ(w.event.sends.size(), before + 60);
    w.event.advance(1);
    EXPECT_EQ(std::set(done_.begin(), done_.end()).size(), 120u);
    EXPECT_EQ(std::count(done_.begin(), done_.end(), "160:-103"), 1);
}

// A callback that runs the loop: the same answer once more, and the time-out, come while it runs.
TEST_F(Exchanges, CompletionDuringCompletionIsIgnored) {
    tav_ipc_st *ipc = open();
    start(ipc, kRequest, 1);
    start(ipc, kConfirmed, 2, 1);
    inside_ = [&](uintptr_t tag) {
        if (tag > 2) return;
        w.clock.wall_s += 10;
        w.event.advance(1000);
        answer(ipc, tag - 1, IPC_FLAG_RESPONSE, "twice");
        start(ipc, kConfirmed, 2 * tag + 1, -1); // a new one is not disturbed
    };
    answer(ipc, 0, IPC_FLAG_RESPONSE, "once");
    w.event.advance(3000);
    EXPECT_THAT(done_, UnorderedElementsAre("1:0/9/once", "2:-102", "3:-102", "5:-102"));
    EXPECT_EQ(ipc_req_manager_count(&ipc->req_mgr), 0u);
}

TEST_F(Exchanges, UseFromASecondThreadIsReported) {
    tav_ipc_st *ipc = open();
    const tav_addr_st dest = address("beta");
    ipc->use_count = 1;
    ipc->owner_thread = pthread_self() + 1;
    for (const Kind kind : {kRequest, kConfirmed, kProbe}) start(ipc, kind, 1);
    tav_ipc_response(ipc, &dest, 1, 1, "", 0);
    tav_ipc_send_file(ipc, &dest, "/no/such/file", nullptr, nullptr, 1);
    for (const char *label : {"make_request", "send2", "probe", "response", "send_file"})
        EXPECT_EQ(w.log.count("[ipc_thread_safe: tav_ipc_" + std::string(label) + "]concurrent", 1), 1)
            << label;
    EXPECT_EQ(ipc->use_count, 1);
    ipc->use_count = 0;
}

TEST_F(Exchanges, LosingACallbackIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // it ends with what it holds
    const auto lose = [&] {
        w.event.fail_timers = 1;
        std::atexit([] {
            if (fake::world().log.count("Out of memory\n", 0)) std::fputs("said so", stderr);
        });
        start(nullptr, kConfirmed, 1);
    };
    EXPECT_EXIT(lose(), testing::ExitedWithCode(0), "said so");
}

} // namespace
