// The connection to the engine: NATS, through nats.c.
//
// Messages are handled on the loop's thread. nats.c reads and writes its socket when the loop says that it is
// ready; its own threads only connect, and leave a note of what they did for the loop. What is published
// leaves with one write at the end of the loop's turn, in flush(). Subscriptions are "synchronous" ones that
// are emptied without a wait after each read, so no thread of nats.c handles messages.
//
// nats.c connects again after most errors, but closes the connection for good after others, such as a refused
// login. Then the next one is made after a pause: natsConnection_Connect tries each server once, on the
// loop's thread, and may wait two seconds for one that does not answer.
//
// While the connection is down the loop's thread calls no other function of nats.c that could wait for its
// lock.
#pragma once

#include <cstring>
#include <mutex>
#include <random>
#include <thread>

#include "common/unique_fd.h"
#include "provision.h"
#include "tavcl_loop.h"

namespace tavbridge {

class Engine {
  public:
    // All are called on the loop's thread.
    struct Events {
        virtual void connected(bool up) = 0;
        // It may be moved. stored: the engine has it, and delivers it again until it is answered. The reply
        // subject of another one is its sender's choice.
        virtual void arrived(Message &message, bool stored) = 0;
        // The answer to a message with reply_subject(number): the engine has stored it, or had it before.
        virtual void answered(uint64_t number, bool stored, bool before) = 0;
        virtual void turn_ends() = 0; // after messages came or bytes left

      protected:
        ~Events() = default;
    };

    Engine(const Settings &settings, Events &events)
        : settings_(settings), events_(events),
          inbox_(inbox(settings, false) + ".r." + random_number() + random_number()) {}

    // nats.c's threads may leave notes until the connection is destroyed. Nobody reads them: the caller
    // releases the loop.
    ~Engine() {
        release();
        nats_CloseAndWait(kEnd_ms); // its threads call this object
    }

    // Begins to connect, and goes on until it succeeds. False, with the reason, when that cannot be tried.
    bool start(std::string &reason) {
        release();
        const Options options = make_options(settings_, reason);
        if (!options) return closed(), false;
        natsStatus status = set_callbacks(options.get());
        natsConnection *made = nullptr;
        if (status == NATS_OK) status = natsConnection_Connect(&made, options.get());
        connection_.reset(made);
        again_ms_ = 0;                    // nothing throws from here on
        if (!made) return closed(), true; // refused
        if (status == NATS_OK) leave([](Note &note) { note.up = true; });
        return true;
    }

    // To be called twice a second. holding: see Provision. Tries again what there was no memory for.
    void tick(bool holding) {
        take_note();
        std::string reason;
        if (again_ms_ && cl_event_loop_now() >= again_ms_) start(reason);
        if (!connected_ || !settings_.home.durable) return;
        if (!provision_) provision_ = std::make_unique<Provision>(connection_.get(), settings_);
        provision_->tick(holding);
    }

    bool connected() const { return connected_; }
    bool ready() const { return connected_ && (provision_ ? provision_->done() : !settings_.home.durable); }
    // Bytes that nats.c holds for the socket.
    int unsent_bytes() const { return socket_ ? natsConnection_Buffered(connection_.get()) : 0; }

    std::string reply_subject(uint64_t number) const { return inbox_ + '.' + std::to_string(number); }

    // NATS_MAX_PAYLOAD: the engine takes none of this size.
    natsStatus publish(const std::string &subject, std::string_view payload) {
        const auto size = static_cast<int>(payload.size());
        if (!connected_) return NATS_ERR;
        return natsConnection_Publish(connection_.get(), subject.c_str(), payload.data(), size);
    }
    natsStatus publish(natsMsg *message) {
        return connected_ ? natsConnection_PublishMsg(connection_.get(), message) : NATS_ERR;
    }

    // Answers a durable message: "+ACK", "+WPI" or "-NAK {...}".
    void answer(natsMsg *message, const char *text) {
        const char *reply = natsMsg_GetReply(message);
        if (connected_ && reply && std::strncmp(reply, "$JS.ACK.", 8) == 0)
            natsConnection_PublishString(connection_.get(), reply, text);
    }

    // Writes what was published. Whoever has published calls it once before the loop's turn ends.
    void flush() {
        if (!socket_) return;
        if (unsent_bytes() > 0) natsConnection_ProcessWriteEvent(connection_.get());
        const int events = unsent_bytes() > 0 ? CL_IO_READ | CL_IO_WRITE : CL_IO_READ;
        if (events != watched_) watch(events);
    }

  private:
    static constexpr int64_t kEnd_ms = 2000;      // for threads of nats.c to end
    static constexpr int64_t kReconnect_ms = 250; // between attempts: a refused one costs little
    // After a connection that was closed for good: a person has to change something.
    static constexpr uint64_t kAgain_ms = 5000;
    static constexpr int kPending = 65536;  // bytes that nats.c keeps meanwhile; the pipe has the rest
    static constexpr size_t kMostUsed = 32; // messages

    // What nats.c's threads have done since the loop last looked.
    struct Note {
        bool replaced = false; // socket: our own duplicate, since nats.c can close its own at any time
        tavipc::UniqueFd socket;
        bool lost = false, closed = false, up = false; // closed: for good; up: the newest state
    };

    // --- what nats.c's threads report

    enum class Became { kUp, kLost, kClosed };
    template <Became what> static void report(natsConnection *, void *self) {
        static_cast<Engine *>(self)->leave([](Note &note) {
            note.up = what == Became::kUp;
            note.lost |= what != Became::kUp;
            note.closed |= what == Became::kClosed;
        });
    }

    static std::string random_number() { return std::to_string(std::random_device()()); }

    natsStatus set_callbacks(natsOptions *options) {
        const auto attach = [](void **self, void *engine, natsConnection *, natsSock socket) {
            *self = engine;
            const int copy = dup(socket);
            return copy < 0 ? NATS_SYS_ERROR : static_cast<Engine *>(engine)->replace_socket(copy);
        };
        const auto detach = [](void *self) { return static_cast<Engine *>(self)->replace_socket(-1); };
        const auto read = [](void *self, bool add) { // it stops to read when it has lost the connection
            return add ? NATS_OK : static_cast<Engine *>(self)->replace_socket(-1);
        };
        const auto write = [](void *argument, bool add) { // the loop's thread flushes by itself
            auto *self = static_cast<Engine *>(argument);
            return add && std::this_thread::get_id() != self->thread_ ? self->leave([](Note &) {}) : NATS_OK;
        };
        natsStatus status = natsOptions_SetEventLoop(options, this, attach, read, write, detach);
        const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
        set(natsOptions_SetRetryOnFailedConnect(options, true, report<Became::kUp>, this));
        set(natsOptions_SetReconnectedCB(options, report<Became::kUp>, this));
        set(natsOptions_SetDisconnectedCB(options, report<Became::kLost>, this));
        set(natsOptions_SetClosedCB(options, report<Became::kClosed>, this));
        set(natsOptions_SetMaxReconnect(options, -1));
        set(natsOptions_SetReconnectWait(options, kReconnect_ms));
        set(natsOptions_SetReconnectBufSize(options, kPending));
        set(natsOptions_SetSendAsap(options, true));
        return status;
    }

    template <typename Change> natsStatus leave(Change change) {
        const std::lock_guard lock(mutex_);
        change(note_);
        const auto call = [](void *self) { static_cast<Engine *>(self)->take_note(); };
        return cl_event_loop_post(loop_, call, this) == 0 ? NATS_OK : NATS_NO_MEMORY;
    }

    natsStatus replace_socket(int fd) {
        return leave([fd](Note &note) { note.socket = tavipc::UniqueFd(fd), note.replaced = true; });
    }

    void take_note() try {
        Note note;
        {
            const std::lock_guard lock(mutex_);
            std::swap(note, note_);
            note_.up = note.up;
        }
        if (note.replaced) {
            watch(0);
            socket_ = std::move(note.socket);
            watch(CL_IO_READ);
        }
        if (note.lost && connected_) events_.connected(connected_ = false);
        if (note.closed) closed();
        if (note.up && !connected_) {
            if (subscriptions_.empty()) { // nats.c does it again on each new connection
                subscribe(inbox_ + ".*");
                subscribe(wildcard(settings_, false, Class::kControl));
                subscribe(wildcard(settings_, true, Class::kControl), group(settings_));
                subscribe(deliver_subject(settings_, false)); // the first one with stored messages
                subscribe(deliver_subject(settings_, true), group(settings_));
            }
            if (provision_) provision_->begin();
            events_.connected(connected_ = true);
        }
        flush();
    } catch (const std::bad_alloc &) {
        if (!connected_) subscriptions_.clear();
        TAV_LOG_LIMITED(1, "tav_bridge", "memory is short while the connection changes");
    }

    void closed() {
        const char *reason = nullptr;
        if (connection_) natsConnection_GetLastError(connection_.get(), &reason);
        again_ms_ = cl_event_loop_now() + kAgain_ms;
        TAV_LOG_LIMITED(1, "tav_bridge", "no connection to the engine: %s", reason ? reason : error_text());
    }

    void release() {
        if (connection_) natsConnection_Close(connection_.get()); // ends what provision_ waits for
        provision_.reset();
        used_.clear();
        subscriptions_.clear();
        connection_.reset();
        watch(0), socket_.reset();
    }

    void subscribe(const std::string &subject, const char *group = nullptr) {
        natsSubscription *made = nullptr;
        const natsStatus status =
            group ? natsConnection_QueueSubscribeSync(&made, connection_.get(), subject.c_str(), group)
                  : natsConnection_SubscribeSync(&made, connection_.get(), subject.c_str());
        if (status != NATS_OK) throw std::bad_alloc();
        subscriptions_.emplace_back(made);
    }

    // --- reading and writing

    void watch(int events) {
        if (io_) cl_io_stop(std::exchange(io_, 0));
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

    // nats.c frees messages in a thread, which it wakes if it sleeps. So they are freed many at once.
    void drain() {
        for (const Subscription &subscription : subscriptions_) try {
                for (;;) {
                    natsMsg *next = nullptr;
                    const natsStatus status = natsSubscription_NextMsg(&next, subscription.get(), 0);
                    if (status == NATS_NO_RESPONDERS) continue; // what was asked is asked again
                    if (status != NATS_OK) break;
                    Message message(next);
                    const bool answer = std::string_view(natsMsg_GetSubject(next)).starts_with(inbox_);
                    // The first three are for answers and control traffic.
                    answer ? take_answer(next) : events_.arrived(message, &subscription > &subscriptions_[2]);
                    if (used_.size() == kMostUsed) used_.clear();
                    if (message) used_.push_back(std::move(message));
                }
            } catch (const std::bad_alloc &) { // the rest comes with the next read
                TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for a message of the engine");
            }
    }

    void take_answer(natsMsg *message) {
        const std::string_view subject = natsMsg_GetSubject(message), text = content(message);
        uint64_t number = 0;
        read_number(subject.substr(subject.rfind('.') + 1), number);
        const bool stored = text.find("\"seq\":") != text.npos && text.find("\"error\"") == text.npos;
        if (!stored)
            TAV_LOG_LIMITED(2, "tav_bridge", "the engine does not store: %.300s", std::string(text).c_str());
        events_.answered(number, stored, text.find("\"duplicate\":") != text.npos); // only there if true
    }

    const Settings &settings_;
    Events &events_;
    // Of this run: answers to an earlier one do not get here. A peer that could guess it could forge answers.
    const std::string inbox_;
    const cl_loop_t loop_ = cl_event_loop_self();
    const std::thread::id thread_ = std::this_thread::get_id();
    std::mutex mutex_; // for note_
    Note note_;
    Connection connection_;
    std::unique_ptr<Provision> provision_;
    std::vector<Subscription> subscriptions_;
    std::vector<Message> used_; // see drain()
    bool connected_ = false;
    uint64_t again_ms_ = 0; // when to make the next connection, on the loop's clock
    tavipc::UniqueFd socket_;
    int watched_ = 0; // events
    cl_io_t io_ = 0;
};

} // namespace tavbridge
