#include "engine.h"

#include <cstring>
#include <new>
#include <random>
#include <utility>

#include <unistd.h>

#include "common/log.h"

namespace tavbridge {
namespace {

constexpr int64_t kEnd_ms = 2000;      // for threads of nats.c to end
constexpr int64_t kReconnect_ms = 250; // between attempts: a refused one costs little
constexpr int kPending = 65536;        // bytes that nats.c keeps while it reconnects; the outbox has the rest
enum Action : int { kAttach, kRead, kWrite, kDetach, kUp, kDown };

// The number at the end of an inbox's subject; 0 without one.
uint64_t number_at_end(std::string_view subject) {
    return std::strtoull(std::string(subject.substr(subject.rfind('.') + 1)).c_str(), nullptr, 10);
}

std::string new_inbox(const Settings &settings, const Place &home) {
    std::random_device random;
    return "_INBOX.tav." + settings.domain + '.' + std::to_string(home.location) + '.' +
           std::to_string(home.hostid) + ".r." + std::to_string(random()) + std::to_string(random());
}

} // namespace

struct Engine::Post {
    Engine *engine;
    int action, value;
};

Engine::Engine(const Settings &settings, const Home &home, Handler handler)
    : settings_(settings), home_(home), handler_(std::move(handler)),
      inbox_(new_inbox(settings, home.place)) {
    if (home.durable) resources_ = resources(settings, home.place);
}

// nats.c's threads may post until the connection is destroyed. What they posted runs no more: it belongs to
// the loop, which the caller releases.
Engine::~Engine() {
    closing_ = true;
    subscriptions_.clear();
    connection_.reset();
    nats_CloseAndWait(kEnd_ms); // its threads call this object
    cl_timer_stop(timer_);
    watch(0);
    if (fd_ >= 0) close(fd_);
}

bool Engine::start(std::string &reason) {
    const Options options = make_options(settings_, reason);
    if (!options) return false;
    const auto up = [](natsConnection *, void *self) { static_cast<Engine *>(self)->on_connection(true); };
    const auto down = [](natsConnection *, void *self) { static_cast<Engine *>(self)->on_connection(false); };
    natsOptions *o = options.get();
    natsStatus status = natsOptions_SetEventLoop(o, this, on_attach, on_read, on_write, on_detach);
    const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
    set(natsOptions_SetRetryOnFailedConnect(o, true, up, this));
    set(natsOptions_SetReconnectedCB(o, up, this));
    set(natsOptions_SetDisconnectedCB(o, down, this));
    set(natsOptions_SetMaxReconnect(o, -1));
    set(natsOptions_SetReconnectWait(o, kReconnect_ms));
    set(natsOptions_SetReconnectBufSize(o, kPending));
    set(natsOptions_SetSendAsap(o, true));
    natsConnection *made = nullptr;
    if (status == NATS_OK) status = natsConnection_Connect(&made, o);
    connection_.reset(made);
    if (status == NATS_OK) on_connection(true);
    if (status == NATS_OK || status == NATS_NOT_YET_CONNECTED) return true;
    reason = natsStatus_GetText(status);
    return false;
}

// --- what nats.c's threads report

natsStatus Engine::on_attach(void **self, void *loop, natsConnection *, natsSock socket) {
    *self = loop; // this object: see natsOptions_SetEventLoop
    const int copy = dup(socket);
    return copy < 0 ? NATS_SYS_ERROR : static_cast<Engine *>(loop)->act(kAttach, copy);
}
natsStatus Engine::on_read(void *self, bool add) { return static_cast<Engine *>(self)->act(kRead, add); }
natsStatus Engine::on_write(void *self, bool add) { return static_cast<Engine *>(self)->act(kWrite, add); }
natsStatus Engine::on_detach(void *self) { return static_cast<Engine *>(self)->act(kDetach, 0); }
void Engine::on_connection(bool up) { act(up ? kUp : kDown, 0); }

natsStatus Engine::act(int action, int value) {
    const bool own = pthread_equal(pthread_self(), thread_);
    if (own && posted_ == 0 && (action == kRead || action == kWrite)) return run(action, value), NATS_OK;
    if (closing_) return NATS_OK;
    auto *post = new (std::nothrow) Post{this, action, value};
    if (!post) return NATS_NO_MEMORY;
    ++posted_;
    const auto call = [](void *argument) {
        const std::unique_ptr<Post> mine(static_cast<Post *>(argument));
        --mine->engine->posted_;
        mine->engine->run(mine->action, mine->value);
    };
    if (cl_event_loop_post(loop_, call, post) == 0) return NATS_OK;
    --posted_;
    delete post;
    return NATS_NO_MEMORY;
}

void Engine::run(int action, int value) try {
    const int bit = action == kWrite ? CL_IO_WRITE : CL_IO_READ;
    if (action == kAttach) {
        watch(0);
        if (fd_ >= 0) close(fd_);
        fd_ = value;
        writing_ = false;
        watch(CL_IO_READ);
    } else if (action == kWrite && batching_) {
        writing_ = value;
    } else if (action == kRead || action == kWrite) {
        if (action == kWrite) writing_ = value;
        watch(value ? events_ | bit : events_ & ~bit);
    } else if (action == kDetach) {
        watch(0);
    } else if (action == kDown && connected_) {
        connected_ = ready_ = false;
        handler_.disconnected();
    } else if (action == kUp && !connected_) {
        if (!subscribe_all()) return retry_resource();
        connected_ = true;
        handler_.connected();
        resource_ = 0;
        making_ = false;
        next_resource();
    }
} catch (const std::bad_alloc &) {
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short while the connection changes");
}

void Engine::watch(int events) {
    if (io_) cl_io_stop(io_);
    events_ = events;
    io_ = 0;
    if (!events || fd_ < 0) return;
    const auto ready = [](cl_io_t, int now, void *self) {
        auto *engine = static_cast<Engine *>(self);
        engine->batch(true);
        if (now & CL_IO_READ) {
            natsConnection_ProcessReadEvent(engine->connection_.get());
            engine->drain();
        }
        engine->batch(false);
    };
    io_ = cl_io_start(fd_, events, ready, this);
}

void Engine::batch(bool begin) {
    batching_ = true;
    if (begin) return;
    // nats.c says inside the call whether it has written everything.
    if (writing_ && fd_ >= 0 && connection_) natsConnection_ProcessWriteEvent(connection_.get());
    batching_ = false;
    if (writing_ != ((events_ & CL_IO_WRITE) != 0))
        watch(writing_ ? events_ | CL_IO_WRITE : events_ & ~CL_IO_WRITE);
}

// --- messages

size_t Engine::unsent_bytes() const {
    const int bytes = connected_ ? natsConnection_Buffered(connection_.get()) : 0;
    return bytes > 0 ? static_cast<size_t>(bytes) : 0;
}

void Engine::drain() {
    for (const Subscription &subscription : subscriptions_) {
        for (;;) {
            natsMsg *message = nullptr;
            const natsStatus status = natsSubscription_NextMsg(&message, subscription.handle.get(), 0);
            if (status == NATS_NO_RESPONDERS) continue; // what was asked is asked again
            if (status != NATS_OK) break;
            Message owned(message);
            try {
                (this->*subscription.handle_message)(std::move(owned));
            } catch (const std::bad_alloc &) {
                TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for a message of the engine");
            }
        }
    }
}

bool Engine::subscribe(const std::string &subject, const char *group, void (Engine::*handler)(Message)) {
    natsSubscription *made = nullptr;
    const natsStatus status =
        group ? natsConnection_QueueSubscribeSync(&made, connection_.get(), subject.c_str(), group)
              : natsConnection_SubscribeSync(&made, connection_.get(), subject.c_str());
    if (status != NATS_OK) return false;
    subscriptions_.push_back({std::unique_ptr<natsSubscription, FreeNats>(made), handler});
    return true;
}

// Subscribes once: nats.c does it again on each new connection.
bool Engine::subscribe_all() {
    if (!subscriptions_.empty()) return true;
    const std::string location = std::to_string(home_.place.location);
    const std::string inbox = "_INBOX.tav." + settings_.domain + '.' + location;
    const std::string host = std::to_string(home_.place.hostid);
    // Wildcards would not wake a consumer that waits for a subscriber.
    const std::string deliver = inbox + '.' + host + ".d.";
    const std::string own = "tav." + settings_.domain + '.' + location + '.' + host + ".*.c.*.*";
    const std::string any = "tav." + settings_.domain + '.' + location + ".any.*.c.*.*";
    const char *group = settings_.any_to_all ? nullptr : "one";
    const bool done = subscribe(inbox_ + ".*", nullptr, &Engine::take_answer) &&
                      subscribe(own, nullptr, &Engine::take_control) &&
                      subscribe(any, group, &Engine::take_control) &&
                      subscribe(deliver + 'd', nullptr, &Engine::take_durable) &&
                      subscribe(group ? inbox + ".any.d" : deliver + 'a', group, &Engine::take_durable);
    if (!done) subscriptions_.clear();
    return done;
}

void Engine::take_control(Message message) { handler_.control(std::move(message)); }
void Engine::take_durable(Message message) { handler_.durable(std::move(message)); }

void Engine::take_answer(Message message) {
    const std::string_view text = content(message.get());
    const uint64_t id = number_at_end(natsMsg_GetSubject(message.get()));
    if (id & 1) {
        if (id == asked_) ready_ ? take_audit(text) : take_resource(text);
        return;
    }
    const bool stored = text.find("\"seq\":") != text.npos && text.find("\"error\"") == text.npos;
    if (!stored)
        TAV_LOG_LIMITED(2, "tav_bridge", "the engine does not store: %.*s",
                        static_cast<int>(std::min<size_t>(text.size(), 300)), text.data());
    handler_.answered(id >> 1, stored, text.find("\"duplicate\":true") != text.npos);
}

bool Engine::publish(const std::string &subject, std::string_view datagram) {
    return connected_ && natsConnection_Publish(connection_.get(), subject.c_str(), datagram.data(),
                                                static_cast<int>(datagram.size())) == NATS_OK;
}

bool Engine::publish_durable(const std::string &subject, const std::string &id_header, uint64_t id,
                             std::string_view datagram) {
    if (!connected_) return false;
    natsMsg *made = nullptr;
    const std::string reply = inbox_ + '.' + std::to_string(id << 1); // even: odd ones are about resources
    if (natsMsg_Create(&made, subject.c_str(), reply.c_str(), datagram.data(),
                       static_cast<int>(datagram.size())) != NATS_OK)
        return false;
    const Message message(made);
    const char *name = settings_.replicas > 1 ? kBridgeId : kEngineId;
    return natsMsgHeader_Set(made, name, id_header.c_str()) == NATS_OK &&
           natsConnection_PublishMsg(connection_.get(), made) == NATS_OK;
}

void Engine::answer(natsMsg *message, const char *text) {
    const char *reply = natsMsg_GetReply(message);
    if (connected_ && reply && std::strncmp(reply, "$JS.ACK.", 8) == 0)
        natsConnection_PublishString(connection_.get(), reply, text);
}

} // namespace tavbridge
