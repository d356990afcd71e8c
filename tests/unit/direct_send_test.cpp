// Datagrams that leave from the caller's memory inside the call: when they do, and that nothing else differs.
#include "endpoint_world.h"
#include "ipc/transmitter.h"

static std::function<int(const std::string &datagram)> on_send_now;

#pragma GCC visibility push(default)
extern "C" int cl_dunix_send_now(cl_dunix_t, const cl_sockaddr_t *, const iovec *parts,
                                 size_t count) noexcept {
    std::string datagram;
    for (const iovec *part = parts; part < parts + count; ++part)
        datagram.append(static_cast<char *>(part->iov_base), part->iov_len);
    return on_send_now(datagram);
}
#pragma GCC visibility pop

namespace {

class DirectSendTest : public EndpointWorld {
  protected:
    DirectSendTest() {
        on_send_now = [this](const std::string &datagram) {
            if (tried_++ == refused_ || refuses_all_) return CL_EV_WOULD_BLOCK;
            return left_.push_back(datagram), CL_EV_OK;
        };
    }
    // What a message leaves behind: datagrams, log lines, counters.
    auto outcome(bool refused, size_t size) {
        close(std::exchange(ipc_, nullptr));
        w.random = {};
        ipc_ = open();
        refuses_all_ = refused;
        tavipc::reset_sending();
        forget();
        left_.clear();
        EXPECT_EQ(send(ipc_, pattern(size)), 0);
        EXPECT_EQ(w.event.sends.empty(), !refused);
        for (const fake::Send &sent : w.event.sends) left_.push_back(sent.bytes);
        w.event.complete_all();
        for (const fake::LogLine &line : w.log.lines) left_.push_back(line.text);
        for (int value = 0; value < TAV_IPC_STATS_COUNT; ++value)
            left_.push_back(std::to_string(ipc_->account.values[value]));
        return std::pair(left_, ipc_->messages.left);
    }

    tav_ipc_st *ipc_ = open();
    std::vector<std::string> left_;
    int tried_ = 0, refused_ = -1;
    bool refuses_all_ = false;
};

TEST_F(DirectSendTest, NothingDiffersFromARecordThatLeaves) {
    for (const size_t size : {0, 5, 64'000, 64'001, 1'000'000})
        EXPECT_TRUE(outcome(false, size) == outcome(true, size)) << size;
}

TEST_F(DirectSendTest, OnlyTheFragmentThatMustWaitBecomesARecord) {
    refused_ = 2;
    ASSERT_EQ(send(ipc_, pattern(5 * 64'000)), 0);
    EXPECT_EQ(left_.size(), 4u);
    ASSERT_EQ(w.event.sends.size(), 1u);
    EXPECT_EQ(tavipc::fragment_sequence(sent(0).header), 2);
    EXPECT_EQ(ipc_->messages.pending, 1u);
    w.event.complete_all();
    EXPECT_EQ(ipc_->messages.pending + ipc_->messages.dropped, 0u);
    EXPECT_EQ(ipc_->messages.left, 1u);
}

TEST_F(DirectSendTest, NothingPassesAMoreUrgentRecordTheBudgetOrTheReleaseOfIdleDestinations) {
    const auto tries = [this](const std::string &payload) {
        tried_ = 0;
        EXPECT_EQ(send(ipc_, payload), 0);
        return tried_;
    };
    refuses_all_ = true;
    send(ipc_, app_message(20, 6));
    w.event.complete_all(CL_EV_WOULD_BLOCK); // it waits in the queue now
    refuses_all_ = false;
    EXPECT_EQ(tries(app_message(20, 5)), 0);
    EXPECT_EQ(tries(app_message(20, 6)), 1);
    w.event.advance(60);
    w.event.complete_all();
    module(ipc_)->sending_bytes = tavipc::kSmallClassBytes - 81;
    EXPECT_EQ(tries(app_message(20)), 1);
    module(ipc_)->sending_bytes = tavipc::kSmallClassBytes - 81;
    EXPECT_EQ(tries(app_message(21)), 0);
    module(ipc_)->sending_bytes = 0;
    w.event.advance(60);
    ipc_->queue->mod_count = 5001;
    EXPECT_EQ(tries("hello"), 0);
    ipc_->queue->mod_count = 1;
    const tav_addr_st beta = address("beta");
    for (const uint32_t size : {1u, 0u}) EXPECT_EQ(tav_ipc_send(ipc_, &beta, 0, nullptr, size), 0);
    EXPECT_EQ(tried_, 1) << "there are no zeros to send from";
}

} // namespace
