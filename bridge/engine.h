// The connection to the engine: NATS with JetStream, through nats.c.
//
// Everything happens on the loop's thread. nats.c reads and writes its socket when the loop says that it is
// ready; its own threads only connect, and post what they did to the loop. Subscriptions are "synchronous"
// ones that are emptied without a wait after each read, so no thread of nats.c handles messages. JetStream is
// used by its subjects, since the calls of nats.c for it wait for answers.
//
// After a server was killed and restarted, a consumer may deliver nothing more or skip messages of its
// stream. The bridge therefore checks twice a minute. If messages waited for a consumer for a minute without
// a delivery, while the bridge itself held none, it deletes the consumer and creates it again.
//
// While the connection is down no function of nats.c is called that could wait for its lock.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nats/nats.h>
#include <pthread.h>

#include "settings.h"
#include "tavcl_loop.h"

namespace tavbridge {

struct FreeNats {
    void operator()(natsMsg *message) const { natsMsg_Destroy(message); }
    void operator()(natsOptions *options) const { natsOptions_Destroy(options); }
    void operator()(natsConnection *connection) const { natsConnection_Destroy(connection); }
    void operator()(natsSubscription *subscription) const { natsSubscription_Destroy(subscription); }
};
using Message = std::unique_ptr<natsMsg, FreeNats>;
using Connection = std::unique_ptr<natsConnection, FreeNats>;
using Options = std::unique_ptr<natsOptions, FreeNats>;

// Headers with a datagram's id. The engine recognises the first one. With replicas the bridges use the second
// one: each server of a cluster (nats-server 2.9.10) decides by itself whether an id is known, and one that
// was restarted has forgotten the ids of messages that were acknowledged. It then stores what the others
// leave out, its sequence numbers differ from theirs, and acknowledgements remove other messages from it.
constexpr const char *kEngineId = "Nats-Msg-Id", *kBridgeId = "Tav-Msg-Id";

inline std::string_view content(natsMsg *message) {
    return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
}

// Options for a connection of these settings: servers, credentials, TLS. Null, with the reason, when nats.c
// refuses one.
Options make_options(const Settings &settings, std::string &reason);

// A stream or consumer that the bridge needs: the subject and the body of the request that looks for it, and
// of the one that makes it. A request without a body does not exist.
struct Resource {
    std::string look_subject, make_subject, make_body;
    // Of a consumer of a work queue, for the audit: what the stream has for it, its state, its end.
    std::string count_subject = {}, count_body = {}, state_subject = {}, delete_subject = {};
    uint64_t delivered = 0; // by the consumer, at the audit before
    int stuck = 0;          // audits in a row that found messages and no delivery
};
std::vector<Resource> resources(const Settings &settings, const Place &home);
std::string stream_name(const Settings &settings, Class kind);
std::string consumer_name(const Place &home, Class kind, bool any);

class Engine {
  public:
    // Called on the loop's thread.
    struct Handler {
        std::function<void()> connected, disconnected;
        std::function<void()> ready; // the streams and consumers are there
        std::function<void(Message)> control, durable;
        std::function<bool()> holding; // whether durable messages are held
        // The engine's answer to publish_durable: whether it has stored the datagram, and whether it had it
        // already.
        std::function<void(uint64_t id, bool stored, bool before)> answered;
    };

    Engine(const Settings &settings, const Home &home, Handler handler);
    ~Engine();
    Engine(const Engine &) = delete;

    // Begins to connect, and goes on until it succeeds. False, with the reason, when that cannot be tried.
    bool start(std::string &reason);
    bool connected() const { return connected_; }
    bool ready() const { return ready_; }
    // Bytes that nats.c holds for the socket.
    size_t unsent_bytes() const;

    // Between batch(true) and batch(false) the writes of nats.c to its socket are delayed; batch(false) makes
    // them.
    void batch(bool begin);
    bool publish(const std::string &subject, std::string_view datagram);
    bool publish_durable(const std::string &subject, const std::string &id_header, uint64_t id,
                         std::string_view datagram);
    // Answers a durable message: "+ACK", "+WPI" or "-NAK {...}".
    void answer(natsMsg *message, const char *text);

  private:
    struct Post;
    struct Subscription {
        std::unique_ptr<natsSubscription, FreeNats> handle;
        void (Engine::*handle_message)(Message);
    };

    static natsStatus on_attach(void **self, void *loop, natsConnection *nc, natsSock socket);
    static natsStatus on_read(void *self, bool add);
    static natsStatus on_write(void *self, bool add);
    static natsStatus on_detach(void *self);
    void on_connection(bool up);
    // Runs action on the loop's thread, in the order of the calls: at once where that is possible.
    natsStatus act(int action, int value);
    void run(int action, int value);
    void watch(int events);
    void drain();
    bool subscribe(const std::string &subject, const char *group, void (Engine::*handler)(Message));
    bool subscribe_all();
    void take_control(Message message);
    void take_durable(Message message);
    void take_answer(Message message);
    void ask(const std::string &subject, const std::string &body);
    void next_resource();
    void take_resource(std::string_view answer);
    void retry_resource();
    void audit(size_t resource);
    void take_audit(std::string_view answer);

    const Settings &settings_;
    const Home &home_;
    Handler handler_;
    const std::string inbox_; // of this run: answers to an earlier one do not get here
    const cl_loop_t loop_ = cl_event_loop_self();
    const pthread_t thread_ = pthread_self();
    std::atomic<int> posted_{0};
    Connection connection_;
    std::vector<Subscription> subscriptions_;
    bool connected_ = false, ready_ = false;
    std::atomic<bool> closing_{false};
    int fd_ = -1; // our own duplicate, so nats.c can close its descriptor at any time
    int events_ = 0;
    bool batching_ = false, writing_ = false; // writing_: nats.c has bytes for the socket
    cl_io_t io_ = 0;
    std::vector<Resource> resources_;
    size_t resource_ = 0;
    bool making_ = false;
    uint64_t asked_ = 0; // number of the request for a resource that waits for its answer
    cl_timer_t timer_ = 0;
    enum { kCount, kState, kDelete } audit_step_ = kCount;
    uint64_t stored_ = 0; // messages in the stream for the consumer under audit
};

} // namespace tavbridge
