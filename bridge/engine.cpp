#include "engine.h"

#include <cstdlib>
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
// nats.c wakes a thread to free a message when that thread sleeps. So used messages are freed many at once.
constexpr size_t kMostSpent = 32;

} // namespace

Engine::Engine(const Settings &settings, Events &events)
    : settings_(settings), events_(events),
      inbox_(inbox(settings) + ".r." + std::to_string(std::random_device()())) {
    spent_.reserve(kMostSpent);
}

// nats.c's threads may leave notes until the connection is destroyed. Nobody reads them: the caller releases
// the loop.
Engine::~Engine() {
    if (connection_) natsConnection_Close(connection_.get()); // ends what provision_ waits for
    provision_.reset();
    spent_.clear();
    subscriptions_.clear();
    connection_.reset();
    nats_CloseAndWait(kEnd_ms); // its threads call this object
    watch(0);
}

bool Engine::start(std::string &reason) {
    const Options options = make_options(settings_, reason);
    if (!options) return false;
    natsOptions *o = options.get();
    natsStatus status = natsOptions_SetEventLoop(o, this, on_attach, on_read, on_write, on_detach);
    const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
    set(natsOptions_SetRetryOnFailedConnect(o, true, on_up, this));
    set(natsOptions_SetReconnectedCB(o, on_up, this));
    set(natsOptions_SetDisconnectedCB(o, on_down, this));
    set(natsOptions_SetMaxReconnect(o, -1));
    set(natsOptions_SetReconnectWait(o, kReconnect_ms));
    set(natsOptions_SetReconnectBufSize(o, kPending));
    set(natsOptions_SetSendAsap(o, true));
    natsConnection *made = nullptr;
    if (status == NATS_OK) status = natsConnection_Connect(&made, o);
    connection_.reset(made);
    if (status == NATS_OK) on_up(made, this);
    if (status == NATS_OK || status == NATS_NOT_YET_CONNECTED) {
        if (settings_.home.durable)
            provision_ = std::make_unique<Provision>(
                made, settings_, holding_, [this] { leave([](Note &note) { note.ready = true; }); });
        return true;
    }
    reason = natsStatus_GetText(status);
    return false;
}

// --- what nats.c's threads report

template <typename Change> natsStatus Engine::leave(Change change) {
    {
        const std::lock_guard lock(mutex_);
        change(note_);
    }
    const auto call = [](void *self) { static_cast<Engine *>(self)->take_note(); };
    return cl_event_loop_post(loop_, call, this) == 0 ? NATS_OK : NATS_NO_MEMORY;
}

natsStatus Engine::on_attach(void **self, void *engine, natsConnection *, natsSock socket) {
    *self = engine;
    tavipc::UniqueFd copy(dup(socket));
    if (!copy) return NATS_SYS_ERROR;
    return static_cast<Engine *>(engine)->leave([&](Note &note) {
        note.socket = std::move(copy);
        note.replaced = true;
        note.write = false;
    });
}

// nats.c stops to read when the connection is lost.
natsStatus Engine::on_read(void *self, bool add) {
    if (add) return NATS_OK;
    return static_cast<Engine *>(self)->leave([](Note &note) {
        note.socket.reset();
        note.replaced = true;
        note.write = false;
    });
}

natsStatus Engine::on_write(void *self, bool add) {
    auto *engine = static_cast<Engine *>(self);
    if (pthread_equal(pthread_self(), engine->thread_)) {
        const std::lock_guard lock(engine->mutex_);
        if (!engine->note_.replaced) return engine->writing_ = add, NATS_OK;
    }
    return engine->leave([add](Note &note) { note.write = add; });
}

void Engine::on_up(natsConnection *, void *self) {
    static_cast<Engine *>(self)->leave([](Note &note) { note.up = true; });
}

void Engine::on_down(natsConnection *, void *self) {
    static_cast<Engine *>(self)->leave([](Note &note) {
        note.up = false;
        note.lost = true;
    });
}

void Engine::take_note() try {
    Note note;
    {
        const std::lock_guard lock(mutex_);
        std::swap(note, note_);
        note_.up = note.up;
    }
    if (note.replaced) {
        watch(0);
        socket_ = std::move(note.socket);
        writing_ = false;
        watch(CL_IO_READ);
    }
    writing_ = writing_ || note.write;
    if (note.lost && connected_) {
        connected_ = ready_ = false;
        if (provision_) provision_->pause();
        events_.disconnected();
    }
    if (note.up && !connected_) take_up();
    if (note.ready && connected_) {
        ready_ = true;
        events_.ready();
    }
    flush();
} catch (const std::bad_alloc &) {
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short while the connection changes");
}

void Engine::take_up() {
    if (!subscribe_all()) throw std::bad_alloc();
    connected_ = true;
    if (provision_) provision_->begin();
    events_.connected();
}

// --- reading and writing

void Engine::watch(int events) {
    if (io_) cl_io_stop(io_);
    io_ = 0;
    watched_ = events;
    if (!events || !socket_) return;
    const auto ready = [](cl_io_t, int now, void *self) {
        auto *engine = static_cast<Engine *>(self);
        if (now & CL_IO_WRITE) engine->flush();
        if (now & CL_IO_READ) {
            natsConnection_ProcessReadEvent(engine->connection_.get());
            engine->drain();
        }
        engine->events_.turn_ends();
        engine->flush();
    };
    io_ = cl_io_start(socket_.get(), events, ready, this);
}

void Engine::flush() {
    if (!socket_) return;
    // nats.c says inside the call whether it has written everything.
    if (writing_) natsConnection_ProcessWriteEvent(connection_.get());
    const int events = writing_ ? CL_IO_READ | CL_IO_WRITE : CL_IO_READ;
    if (events != watched_) watch(events);
}

size_t Engine::unsent_bytes() const {
    const int bytes = connected_ ? natsConnection_Buffered(connection_.get()) : 0;
    return bytes > 0 ? static_cast<size_t>(bytes) : 0;
}

// --- messages

bool Engine::subscribe(Kind kind, const std::string &subject, const char *group) {
    natsSubscription *made = nullptr;
    const natsStatus status =
        group ? natsConnection_QueueSubscribeSync(&made, connection_.get(), subject.c_str(), group)
              : natsConnection_SubscribeSync(&made, connection_.get(), subject.c_str());
    if (status == NATS_OK) subscriptions_.emplace_back(kind, made);
    return status == NATS_OK;
}

// Subscribes once: nats.c does it again on each new connection.
bool Engine::subscribe_all() {
    if (!subscriptions_.empty()) return true;
    const char *shared = group(settings_);
    const bool done = subscribe(kAnswer, inbox_ + ".*") &&
                      subscribe(kControl, wildcard(settings_, false, Class::kControl)) &&
                      subscribe(kControl, wildcard(settings_, true, Class::kControl), shared) &&
                      subscribe(kDurable, deliver_subject(settings_, false)) &&
                      subscribe(kDurable, deliver_subject(settings_, true), shared);
    if (!done) subscriptions_.clear();
    return done;
}

void Engine::drain() {
    for (const auto &[kind, subscription] : subscriptions_) {
        for (;;) {
            natsMsg *message = nullptr;
            const natsStatus status = natsSubscription_NextMsg(&message, subscription.get(), 0);
            if (status == NATS_NO_RESPONDERS) continue; // what was asked is asked again
            if (status != NATS_OK) break;
            handle(kind, Message(message));
        }
    }
}

void Engine::handle(Kind kind, Message message) try {
    if (kind == kDurable) return events_.durable(std::move(message));
    kind == kControl ? events_.control(message.get()) : take_answer(message.get());
    if (spent_.size() == kMostSpent) spent_.clear();
    spent_.push_back(std::move(message));
} catch (const std::bad_alloc &) {
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for a message of the engine");
}

void Engine::take_answer(natsMsg *message) {
    const std::string_view subject = natsMsg_GetSubject(message), text = content(message);
    const uint64_t number = std::strtoull(subject.data() + subject.rfind('.') + 1, nullptr, 10);
    const bool stored = text.find("\"seq\":") != text.npos && text.find("\"error\"") == text.npos;
    if (!stored)
        TAV_LOG_LIMITED(2, "tav_bridge", "the engine does not store: %.*s",
                        static_cast<int>(std::min<size_t>(text.size(), 300)), text.data());
    events_.answered(number, stored, text.find("\"duplicate\":true") != text.npos);
}

bool Engine::publish(const std::string &subject, std::string_view payload) {
    return connected_ && natsConnection_Publish(connection_.get(), subject.c_str(), payload.data(),
                                                static_cast<int>(payload.size())) == NATS_OK;
}

bool Engine::publish(natsMsg *message) {
    return connected_ && natsConnection_PublishMsg(connection_.get(), message) == NATS_OK;
}

void Engine::answer(natsMsg *message, const char *text) {
    const char *reply = natsMsg_GetReply(message);
    if (connected_ && reply && std::strncmp(reply, "$JS.ACK.", 8) == 0)
        natsConnection_PublishString(connection_.get(), reply, text);
}

} // namespace tavbridge
