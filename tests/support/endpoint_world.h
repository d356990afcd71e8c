// Fixture for the rooms around the endpoint: opens endpoints in a fake world, feeds them datagrams, shows
// what they sent and what their callbacks got. Every test ends with all endpoints destroyed, and then no
// timer, no socket and no pending send may be left.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "fakes.h"
#include "identity_fakes.h"
#include "ipc/endpoint.h"
#include "ipc/ipc_process.h"
#include "ipc/wire.h"

struct Datagram {
    std::string path; // where it was sent to
    tav_ipc_hdr_st header{};
    std::string payload;

    std::string bytes() const {
        tav_ipc_hdr_st stamped = header;
        stamped.size = static_cast<uint32_t>(payload.size());
        stamped.magic = tav_ipc_hdr_magic(&stamped);
        return std::string(reinterpret_cast<const char *>(&stamped), sizeof stamped) + payload;
    }
};

inline tav_addr_st address(std::string_view name, uint8_t loc = 2, uint8_t flags = 0,
                           uint32_t hostid = 4711) {
    tav_addr_st result{};
    result.hostid = hostid;
    std::memcpy(result.name, name.data(), name.size()); // ten bytes: no terminator
    result.loc = loc;
    result.flags = flags;
    return result;
}

inline std::string pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i ^ (i >> 8) * 31) % 251);
    return text;
}

// An application message of size bytes in all whose header claims a body of that size plus lie.
inline std::string app_message(size_t size, uint8_t priority = 0, uint16_t method = 0, int lie = 0) {
    std::string text = "3200" + std::string(16, '\0') + std::string(size > 20 ? size - 20 : 0, 'a');
    const auto body = static_cast<uint32_t>(size - 20 + static_cast<size_t>(lie));
    text[7] = static_cast<char>(method);
    text[15] = static_cast<char>(priority);
    for (int i = 0; i < 4; ++i) text[16 + i] = static_cast<char>(body >> (24 - 8 * i));
    text.resize(size);
    return text;
}

class EndpointWorld : public FakeWorld {
  protected:
    struct Call {
        std::string kind, from, payload;
        uint32_t reqid, cmd;
        size_t sent_before;
        bool operator==(const Call &) const = default;
    };

    EndpointWorld() {
        fake::identity() = {};
        tavipc::process_state() = {};
        unsetenv("IPC_TEST");
        static uint64_t days = 0; // rate limits outlive a test: each begins long after the one before
        w.clock.ticks_ms += ++days * 86'400'000;
    }
    void TearDown() override {
        while (!open_.empty()) close(open_.back());
        EXPECT_TRUE(w.event.timers.empty());
        EXPECT_TRUE(w.event.sockets.empty());
        EXPECT_EQ(w.event.pending(), 0u);
    }

    tav_ipc_st *adopt(tav_ipc_st *ipc) {
        if (ipc) open_.push_back(ipc);
        return ipc;
    }
    tav_ipc_st *open(const char *name = "alpha") {
        tav_ipc_st *ipc = adopt(tav_ipc_create(name));
        if (!ipc) throw std::runtime_error("the endpoint does not open");
        return ipc;
    }
    void close(tav_ipc_st *ipc) {
        std::erase(open_, ipc);
        tav_ipc_destroy(ipc);
    }

    void receive(tav_ipc_st *ipc, const Datagram &datagram) { receive(ipc, datagram.bytes()); }
    void receive(tav_ipc_st *ipc, std::string_view bytes, int status = 0) {
        w.event.deliver(ipc->queue->default_mod->sock, bytes, status);
    }

    // Notes what reaches the callbacks; then_ runs inside each.
    void listen(tav_ipc_st *ipc) {
        tav_ipc_msg_recv(ipc, on_message, this);
        tav_ipc_on_request(ipc, on_request, this);
    }

    int send(tav_ipc_st *ipc, std::string_view payload, const tav_addr_st &dest = address("beta"),
             uint16_t flags = 0, uint32_t *reqid = nullptr) {
        return tav_ipc_send_with_flags(ipc, &dest, 7, payload.data(), static_cast<uint32_t>(payload.size()),
                                       flags, reqid);
    }
    Datagram sent(size_t index) const {
        const fake::Send &send = w.event.sends.at(index);
        return {send.path, tavipc::read_header(send.bytes.data()), send.bytes.substr(tavipc::kHeaderSize)};
    }
    mod_info_st *module(tav_ipc_st *ipc, const char *name = "beta") {
        return ipc_queue_find_mod(ipc->queue, name);
    }

    std::vector<Call> calls_;
    std::function<void(tav_ipc_st *)> then_;
    std::vector<tav_ipc_st *> open_;

  private:
    static int on_message(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t cmd, const void *data,
                          uint32_t size, void *user) {
        return static_cast<EndpointWorld *>(user)->note(ipc, "message", src, 0, cmd, data, size);
    }
    static int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd,
                          const void *data, uint32_t size, void *user) {
        return static_cast<EndpointWorld *>(user)->note(ipc, "request", src, reqid, cmd, data, size);
    }
    int note(tav_ipc_st *ipc, const char *kind, const tav_addr_st *src, uint32_t reqid, uint32_t cmd,
             const void *data, uint32_t size) {
        const size_t before = w.event.sends.size();
        if (then_) then_(ipc); // the data must outlive whatever the callback does
        calls_.push_back({kind, tavipc::name_text(*src).text,
                          std::string(static_cast<const char *>(data), size), reqid, cmd, before});
        return -1;
    }
};
