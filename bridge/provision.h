// What the bridge needs in the engine: options for a connection, streams, and consumers.
//
// The functions of nats.c for streams and consumers wait for answers, so they run in a thread of their own.
// Each time the connection is made, it looks for the streams and consumers and makes those that are not
// there. After a server was killed and restarted, a consumer may deliver nothing more or skip messages of its
// stream. So it then checks twice a minute: if messages waited for a consumer for a minute without a
// delivery, while the bridge itself held none, it deletes the consumer and creates it again.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nats/nats.h>

#include "settings.h"

namespace tavbridge {

template <auto Function> struct Free {
    template <typename Object> void operator()(Object *object) const { Function(object); }
};
using Message = std::unique_ptr<natsMsg, Free<natsMsg_Destroy>>;
using Options = std::unique_ptr<natsOptions, Free<natsOptions_Destroy>>;
using Connection = std::unique_ptr<natsConnection, Free<natsConnection_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Free<natsSubscription_Destroy>>;
using JetStream = std::unique_ptr<jsCtx, Free<jsCtx_Destroy>>;

inline std::string_view content(natsMsg *message) {
    return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
}

// Of the bridges that share the messages for host id 0; null: each gets all of them.
const char *group(const Settings &settings);
// The beginning of the subjects on which the engine answers this bridge.
std::string inbox(const Settings &settings);
// Of all messages of the class for this machine, or for any machine of the location.
std::string wildcard(const Settings &settings, bool any, Class kind);
// Where the engine delivers what is stored for them.
std::string deliver_subject(const Settings &settings, bool any);
// Options for a connection of these settings: servers, credentials, TLS. Null, with the reason, when nats.c
// refuses one.
Options make_options(const Settings &settings, std::string &reason);

// A consumer of a stream, for this machine or for any machine of its location.
struct Consumer {
    Class kind;
    std::string stream, name, filter, deliver;
    const char *group;
    uint64_t delivered = 0; // at the audit before
    int stuck = 0;          // audits in a row that found messages and no delivery
};

class Provision {
  public:
    // ready() is called in the thread, when all streams and consumers are there. holding: whether the bridge
    // holds durable messages.
    Provision(natsConnection *connection, const Settings &settings, const std::atomic<bool> &holding,
              std::function<void()> ready);
    // The connection must be closed before: this ends the wait for an answer.
    ~Provision() { enter(kEnd), thread_.join(); }

    void begin() { enter(kMake); }   // the connection is there
    void pause() { enter(kPaused); } // it is not

  private:
    enum State { kPaused, kMake, kAudit, kEnd };
    void enter(State state);
    void run();
    bool make(jsCtx *js);
    bool audit(jsCtx *js);
    bool is_stuck(jsCtx *js, Consumer &consumer) const;

    natsConnection *const connection_;
    const Settings &settings_;
    const std::atomic<bool> &holding_;
    const std::function<void()> ready_;
    std::vector<Consumer> consumers_;
    std::mutex mutex_; // for the state
    std::condition_variable entered_;
    State state_ = kPaused;
    bool anew_ = false; // the state was entered since the thread last looked
    std::thread thread_;
};

// Prints whether the engine can be reached, and the state of the streams and consumers. Returns whether all
// is right.
bool check_engine(const Settings &settings);

} // namespace tavbridge
