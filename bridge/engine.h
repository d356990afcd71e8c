// The connection to the engine: NATS, through nats.c.
//
// Messages are handled on the loop's thread. nats.c reads and writes its socket when the loop says that it is
// ready; its own threads only connect, and leave a note of what they did for the loop. What is published
// leaves with one write at the end of the loop's turn, in flush(). Subscriptions are "synchronous" ones that
// are emptied without a wait after each read, so no thread of nats.c handles messages.
//
// While the connection is down the loop's thread calls no function of nats.c that could wait for its lock.
#pragma once

#include <mutex>

#include <pthread.h>

#include "common/unique_fd.h"
#include "provision.h"
#include "tavcl_loop.h"

namespace tavbridge {

class Engine {
  public:
    // All are called on the loop's thread.
    struct Events {
        virtual void connected(bool up) = 0;
        virtual void arrived(Message &message) = 0; // it may be moved
        // The answer to a message with reply_subject(number): the engine has stored it, or had it before.
        virtual void answered(uint64_t number, bool stored, bool before) = 0;
        virtual void turn_ends() = 0; // after messages came or bytes left

      protected:
        ~Events() = default;
    };

    Engine(const Settings &settings, Events &events);
    ~Engine();

    // Begins to connect, and goes on until it succeeds. False, with the reason, when that cannot be tried.
    bool start(std::string &reason);
    // To be called twice a second. holding: see Provision.
    void tick(bool holding);
    bool connected() const { return connected_; }
    bool ready() const { return connected_ && provision_ && provision_->done(); }
    // Bytes that nats.c holds for the socket.
    int unsent_bytes() const { return socket_ ? natsConnection_Buffered(connection_.get()) : 0; }

    std::string reply_subject(uint64_t number) const { return inbox_ + '.' + std::to_string(number); }
    bool publish(const std::string &subject, std::string_view payload);
    void publish(natsMsg *message);
    // Answers a durable message: "+ACK", "+WPI" or "-NAK {...}".
    void answer(natsMsg *message, const char *text);
    // Writes what was published. Whoever has published calls it once before the loop's turn ends.
    void flush();

  private:
    // What nats.c's threads have done since the loop last looked.
    struct Note {
        bool replaced = false; // socket: our own duplicate, since nats.c can close its own at any time
        tavipc::UniqueFd socket;
        bool lost = false;
        bool up = false; // the newest state
    };

    natsStatus set_callbacks(natsOptions *options);
    template <typename Change> natsStatus leave(Change change);
    natsStatus replace_socket(int fd);
    void take_note();
    void subscribe(const std::string &subject, const char *group = nullptr);
    void watch(int events);
    void drain();
    void take_answer(natsMsg *message);

    const Settings &settings_;
    Events &events_;
    const std::string inbox_; // of this run: answers to an earlier one do not get here
    const cl_loop_t loop_ = cl_event_loop_self();
    const pthread_t thread_ = pthread_self();
    std::mutex mutex_; // for note_
    Note note_;
    Connection connection_;
    std::unique_ptr<Provision> provision_;
    std::vector<Subscription> subscriptions_;
    std::vector<Message> used_; // see drain()
    bool connected_ = false;
    tavipc::UniqueFd socket_;
    int watched_ = 0; // events
    cl_io_t io_ = 0;
};

} // namespace tavbridge
