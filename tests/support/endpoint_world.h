// Fixture for the components around the endpoint, in a fake world. Every test ends with all endpoints
// destroyed, and then no timer, no socket and no pending send may be left.
#pragma once

#include <arpa/inet.h>

#include "fakes.h"
#include "ipc/endpoint.h"
#include "ipc/ipc_process.h"
#include "ipc/send.h"
#include "ipc/wire.h"
#include "stats_reader.h"

template <typename T> std::string bytes_of(const T &value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

struct Datagram {
    std::string path; // where it was sent to
    tav_ipc_hdr_st header{};
    std::string payload;

    std::string bytes() const {
        tav_ipc_hdr_st stamped = header;
        stamped.size = static_cast<uint32_t>(payload.size());
        stamped.magic = tav_ipc_hdr_magic(&stamped);
        return bytes_of(stamped) + payload;
    }
};

inline tav_addr_st address(std::string_view name, uint8_t loc = 2, uint8_t flags = 0,
                           uint32_t hostid = 4711) {
    tav_addr_st result{hostid, {}, loc, flags};
    name.copy(result.name, sizeof result.name); // ten bytes: no terminator
    return result;
}

inline std::string pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i ^ (i >> 8) * 31) % 251);
    return text;
}

// An application message of size bytes in all. Its header claims a body that is larger by lie.
inline std::string app_message(size_t size, uint8_t priority = 0, char method = 0, int lie = 0) {
    std::string text = "3200" + std::string(16, '\0') + std::string(size - 20, 'a');
    text[7] = method;
    text[15] = static_cast<char>(priority);
    return text.replace(16, 4, bytes_of(htonl(static_cast<uint32_t>(static_cast<int>(size) - 20 + lie))));
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
        tavipc::reset_process_state();
        tavipc::keep_stats_in_memory(true);
        unsetenv("IPC_TEST");
    }
    void TearDown() override {
        while (!open_.empty()) close(open_.back());
        EXPECT_EQ(w.event.timers.size(), 0u);
        EXPECT_EQ(w.event.sockets.size(), 0u);
        EXPECT_EQ(w.event.pending(), 0u);
    }

    tav_ipc_st *adopt(tav_ipc_st *ipc) {
        if (ipc) open_.push_back(ipc);
        return ipc;
    }
    tav_ipc_st *open(const char *name = "alpha") {
        if (tav_ipc_st *ipc = adopt(tav_ipc_create(name))) return ipc;
        throw std::runtime_error("the endpoint does not open");
    }
    void close(tav_ipc_st *ipc) {
        std::erase(open_, ipc);
        tav_ipc_destroy(ipc);
    }
    // Runs scenario on a fresh endpoint with action at its first line of the log, again with action at its
    // second line, and so on. Returns the number of lines. action may leave ipc null.
    size_t at_each_line(tav_ipc_st *&ipc, const std::function<void()> &scenario,
                        const std::function<void()> &action) {
        for (size_t at = 1;; ++at) {
            SCOPED_TRACE(testing::Message() << "line " << at);
            close(ipc);
            ipc = open();
            forget();
            size_t line = 0;
            w.log.on_line = [&] {
                if (++line == at) action();
            };
            scenario();
            w.log.on_line = nullptr;
            if (line < at) return at - 1;
        }
    }
    // Completes the pending sends, and forgets what was sent, received and logged.
    void forget() {
        w.event.complete_all();
        w.event.sends.clear();
        calls_.clear();
        w.log.lines.clear();
    }

    void receive(tav_ipc_st *ipc, const Datagram &datagram) { receive(ipc, datagram.bytes()); }
    void receive(tav_ipc_st *ipc, std::string_view bytes, int status = 0) {
        w.event.deliver(ipc->queue->default_mod->sock, bytes, status);
    }
    // An answer to the message that was sent last, or to that of another id.
    void answer(tav_ipc_st *ipc, uint16_t flags, const std::string &payload, uint32_t reqid = last_id()) {
        receive(ipc, {"", {{}, {}, reqid, flags, 0, 9, 0, 0, {}, 0, 0}, payload});
    }
    static uint32_t last_id() { return tavipc::last_reqid(); }
    // Notes the calls of the callbacks. then_ runs inside each.
    void listen(tav_ipc_st *ipc) {
        tav_ipc_msg_recv(ipc, note<>, this);
        tav_ipc_on_request(ipc, note<uint32_t>, this);
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
    static tav_ipc_stats_st stats(tav_ipc_st *ipc, const char *destination = nullptr) {
        tav_ipc_stats_st result{};
        EXPECT_EQ(tav_ipc_get_stats(ipc, destination, &result, sizeof result), 0);
        return result;
    }
    static void expect_balanced(tav_ipc_st *ipc, const char *destination = "beta") {
        const tav_ipc_stats_st all = stats(ipc);
        tav_ipc_stats_st part{};
        (void)tav_ipc_get_stats(ipc, destination, &part, sizeof part); // zeros if there is none
        EXPECT_EQ(imbalance(all.values), 0);
        EXPECT_EQ(imbalance(part.values), 0);
        const auto &messages = ipc->messages;
        EXPECT_EQ(all.values[TAV_IPC_STATS_MESSAGES], messages.pending + messages.left + messages.dropped);
    }
    mod_info_st *module(tav_ipc_st *ipc, const char *name = "beta") {
        return ipc_queue_find_mod(ipc->queue, name);
    }

    std::vector<Call> calls_;
    std::function<void(tav_ipc_st *)> then_;
    std::vector<tav_ipc_st *> open_;

  private:
    template <typename... Reqid> // one for requests, none for messages
    static int note(tav_ipc_st *ipc, const tav_addr_st *src, Reqid... reqid, uint32_t cmd, const void *data,
                    uint32_t size, void *user) {
        auto *self = static_cast<EndpointWorld *>(user);
        const size_t before = self->w.event.sends.size();
        if (const auto then = self->then_) then(ipc); // the data must outlive whatever the callback does
        self->calls_.push_back({sizeof...(reqid) ? "request" : "message", tavipc::name_text(*src).text,
                                std::string(static_cast<const char *>(data), size), (reqid + ... + 0u), cmd,
                                before});
        return -1;
    }
};
