// The bridge of one location: its sockets, its endpoints, and what flows between them and the engine.
//
//   _proxy_ (at the hub _prx0 to _prx7) -> judge_outgoing -> outbox or plain message -> engine
//   engine -> judge_incoming -> deliveries or endpoint -> tav_ipc_send_raw -> local socket
//
// The two directions share nothing, so what came from the engine cannot go back there. While the engine is
// away, or has not confirmed as much as allowed, the sockets are not read: the sending modules' libraries
// hold their messages.
#pragma once

#include <map>
#include <memory>

#include "deliveries.h"
#include "outbox.h"
#include "pipe.h"

namespace tavbridge {

class Bridge {
  public:
    explicit Bridge(const Settings &settings);
    ~Bridge();
    Bridge(const Bridge &) = delete;

    // Opens sockets and endpoints, and begins to connect. False, with the reason, on failure.
    bool start(std::string &reason);
    // Ends the loop once what was read has been stored, or after some seconds.
    void stop();

  private:
    struct Endpoint {
        void operator()(tav_ipc_st *endpoint) const { tav_ipc_destroy(endpoint); }
    };
    struct Heard {
        uint8_t location;
        uint32_t hostid;
        std::string name;
        auto operator<=>(const Heard &) const = default;
    };

    bool open_endpoints(std::string &reason);
    bool open_pipes(std::string &reason);
    void on_datagram(uint64_t ticket, std::string_view data, std::string_view from);
    bool forward(uint64_t ticket, std::string_view data, std::string_view from);
    void on_message(Message message, bool durable);
    void on_request(const tav_addr_st &source, uint32_t reqid, uint32_t command);
    void remember(const tav_addr_st &source);
    std::string heard_text() const;
    std::string counters_text() const;
    void pause();
    void resume_if_possible();
    void look_soon();
    void look();
    void tick();

    const Settings &settings_;
    Home home_;
    Counters counters_;
    std::unique_ptr<tav_ipc_st, Endpoint> control_, durable_;
    std::unique_ptr<Engine> engine_;
    std::unique_ptr<Outbox> outbox_;
    std::unique_ptr<Deliveries> deliveries_;
    std::vector<std::unique_ptr<Pipe>> pipes_;
    std::map<Heard, uint64_t> heard_; // when, on the loop's clock
    uint64_t last_read_ms_ = 0, stop_by_ms_ = 0, ticks_ = 0;
    cl_timer_t look_timer_ = 0, tick_timer_ = 0;
};

} // namespace tavbridge
