// The bridge of one location: its sockets, its endpoints, and what flows between them and the engine.
//
//   _proxy_ (at the hub _prx0 to _prx7) -> judge_outgoing -> outbox or plain message -> engine
//   engine -> judge_incoming -> deliveries or endpoint -> tav_ipc_send_raw -> local socket
//
// The two directions share nothing, so what came from the engine cannot go back there. While the engine is
// away, or has not confirmed as much as allowed, the sockets are not read: the sending modules' libraries
// hold their messages.
#pragma once

#include "deliveries.h"
#include "outbox.h"
#include "pipe.h"

namespace tavbridge {

class Bridge : Engine::Events {
  public:
    explicit Bridge(const Settings &settings);
    ~Bridge();
    Bridge(const Bridge &) = delete;

    // Opens sockets and endpoints, and begins to connect. False, with the reason, on failure.
    bool start(std::string &reason);
    // Ends the loop once what was read has been stored, or after some seconds.
    void stop();

  private:
    struct Free {
        void operator()(tav_ipc_st *endpoint) const { tav_ipc_destroy(endpoint); }
    };
    using Endpoint = std::unique_ptr<tav_ipc_st, Free>;
    struct Heard {
        uint8_t location;
        uint32_t hostid;
        std::string name;
        auto operator<=>(const Heard &) const = default;
    };
    // Control datagrams that leave in one message: they came one after the other and have the same subject.
    struct Joined {
        Subject subject;
        std::string payload;
    };

    void connected() override;
    void disconnected() override;
    void ready() override { outbox_.resend(true); }
    void control(natsMsg *message) override;
    void durable(Message message) override;
    void answered(uint64_t ticket, bool stored, bool before) override;
    void turn_ends() override;

    bool open_endpoints(std::string &reason);
    bool open_pipes(std::string &reason);
    Pipe &pipe() { return *pipes_.front(); }
    void on_datagrams(std::span<const Pipe::Datagram> datagrams);
    bool forward(const Pipe::Datagram &datagram);
    void join(Subject &&subject, std::string_view datagram);
    void publish_joined();
    Drop judge(const std::optional<Subject> &subject, bool durable, std::string_view datagram);
    void remember(const tav_addr_st &source);
    void on_request(const tav_addr_st &source, uint32_t reqid, uint32_t command);
    std::string heard_text() const;
    std::string counters_text() const;
    void pause();
    void resume_if_possible();
    void tick();

    const Settings &settings_;
    Counters counters_;
    Endpoint control_, durable_;
    Engine engine_{settings_, *this};
    Outbox outbox_{engine_, counters_, settings_.waiting_bytes};
    std::unique_ptr<Deliveries> deliveries_;
    std::vector<std::unique_ptr<Pipe>> pipes_;
    Joined joined_;
    std::map<Heard, uint64_t> heard_; // when, on the loop's clock
    uint64_t last_read_ms_ = 0, stop_by_ms_ = 0, ticks_ = 0;
    cl_timer_t tick_timer_ = 0;
};

} // namespace tavbridge
