// tavipc: an endpoint each, addressed by name; the server answers to where a message came from.
// busy-poll, batching: the same with this setting of the event library, at both ends.
#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "link.h"
#include "tavcl_loop.h"
#include "tavipc/tav_ipc.h"

namespace bench {
namespace {

constexpr int kSendsPerTurn = 64;
constexpr size_t kPlainLimit = 30'000'000;
constexpr int32_t kTimeoutS = 60;
constexpr uint32_t kBusyPollUs = 50; // as long as the wake-up of another core takes

class TavipcLink : public Link {
  public:
    explicit TavipcLink(const Ends &ends) {
        const std::string name = ends.server ? "server" : "client" + std::to_string(ends.client);
        ipc_ = ends.files ? tav_ipc_create_temp(name.c_str(), ends.server) : tav_ipc_create(name.c_str());
        check(ipc_ != nullptr, "tav_ipc_create");
        if (!ends.server) std::strcpy(peer_.name, "server");
        tav_ipc_msg_recv(
            ipc_,
            [](tav_ipc_st *, const tav_addr_st *src, uint32_t, const void *data, uint32_t size, void *self) {
                static_cast<TavipcLink *>(self)->on_receive(*src, static_cast<const char *>(data), size);
                return 0;
            },
            this);
    }

    void send(const void *data, size_t size) override {
        while (!backlog_.empty() || !try_send(data, size)) {
            if (handling_) return keep(data, size);
            turn(-1);
        }
        if (!handling_ && ++sends_ % kSendsPerTurn == 0) turn(0);
    }

    void request(const void *data, size_t size) override {
        const auto reply = [](int32_t code, uint32_t, const void *, uint32_t, void *self) {
            check(code == IPC_OK, "response");
            static_cast<TavipcLink *>(self)->on_reply();
            return 0;
        };
        tav_ipc_make_request(ipc_, &peer_, 0, data, static_cast<uint32_t>(size), reply, this, kTimeoutS);
    }

    void answer_requests() override {
        tav_ipc_on_request(
            ipc_,
            [](tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t, const void *data,
               uint32_t size, void *) {
                tav_ipc_response(ipc, src, reqid, 0, data, size);
                return 0;
            },
            nullptr);
    }

    void send_file(const char *path) override {
        const auto done = [](int32_t code, void *self) {
            check(code >= 0, "tav_ipc_send_file");
            static_cast<TavipcLink *>(self)->on_reply();
            return 0;
        };
        tav_ipc_send_file(ipc_, &peer_, path, done, this, kTimeoutS);
    }

    void receive_file(const std::string &, size_t) override {
        tav_ipc_file_recv(
            ipc_,
            [](tav_ipc_st *, const char *path, void *self) {
                static_cast<TavipcLink *>(self)->on_file(path);
                return 0;
            },
            this);
    }

    void turn(int timeout_ms) override { cl_event_loop_run_once(timeout_ms); }
    void run() override { cl_event_loop_run(); }
    void stop() override { cl_event_loop_stop(); }

  private:
    // The library refuses more than 32 MiB in flight, or 64 MiB of messages to be confirmed.
    bool try_send(const void *data, size_t size) {
        const uint16_t flags = size > kPlainLimit ? IPC_FLAG_NEED_ACK : 0;
        return tav_ipc_send_with_flags(ipc_, &peer_, 0, data, static_cast<uint32_t>(size), flags, nullptr) ==
               0;
    }

    void keep(const void *data, size_t size) {
        if (backlog_.empty()) cl_timer_start(0, retry, this);
        backlog_.emplace_back(static_cast<const char *>(data), size);
    }

    static void retry(void *self) {
        auto &backlog = static_cast<TavipcLink *>(self)->backlog_;
        while (!backlog.empty() &&
               static_cast<TavipcLink *>(self)->try_send(backlog[0].data(), backlog[0].size()))
            backlog.pop_front();
        if (!backlog.empty()) cl_timer_start(1, retry, self);
    }

    void on_receive(const tav_addr_st &src, const char *data, size_t size) {
        peer_ = src;
        handling_ = true;
        on_message(data, size);
        handling_ = false;
    }

    tav_ipc_st *ipc_;
    tav_addr_st peer_{};
    bool handling_ = false;
    std::deque<std::string> backlog_; // what handlers sent and was refused
    unsigned sends_ = 0;
};

} // namespace

std::unique_ptr<Link> make_tavipc(const Ends &ends) { return std::make_unique<TavipcLink>(ends); }

std::unique_ptr<Link> make_busy_poll(const Ends &ends) {
    check(cl_event_loop_set_busy_poll(kBusyPollUs) == 0, "cl_event_loop_set_busy_poll");
    return make_tavipc(ends);
}

std::unique_ptr<Link> make_batching(const Ends &ends) {
    check(cl_event_loop_set_batching(kSendsPerTurn, 0) == 0, "cl_event_loop_set_batching");
    return make_tavipc(ends);
}

} // namespace bench
