// What the bridge needs in the engine: options for a connection, messages to store, streams and consumers.
//
// The functions of nats.c for streams and consumers wait for answers, so they run in a thread. Each time the
// connection is made, it looks for the streams and consumers and makes those that are not there. After a
// server was killed and restarted, a consumer may deliver nothing more or skip messages of its stream. So the
// thread then looks every 75 s: if messages waited for a consumer all the time without a delivery, while
// the bridge itself held none, it deletes the consumer and makes it again.
#pragma once

#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nats/nats.h>

#include "common/owned.h"
#include "settings.h"

namespace tavbridge {

using tavipc::Free;
using Message = std::unique_ptr<natsMsg, Free<natsMsg_Destroy>>;
using Options = std::unique_ptr<natsOptions, Free<natsOptions_Destroy>>;
using Connection = std::unique_ptr<natsConnection, Free<natsConnection_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Free<natsSubscription_Destroy>>;
using JetStream = std::unique_ptr<jsCtx, Free<jsCtx_Destroy>>;
using StreamInfo = std::unique_ptr<jsStreamInfo, Free<jsStreamInfo_Destroy>>;
using ConsumerInfo = std::unique_ptr<jsConsumerInfo, Free<jsConsumerInfo_Destroy>>;

inline std::string_view content(natsMsg *message) {
    return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
}
// Headers with a datagram's id. The engine recognises the first one. With replicas the bridges use the second
// one: each server of a cluster (nats-server 2.9.10) decides by itself whether an id is known, and one that
// was restarted has forgotten the ids of messages that were acknowledged. It then stores what the others
// leave out, its sequence numbers differ from theirs, and acknowledgements remove other messages from it.
constexpr const char *kEngineId = "Nats-Msg-Id", *kBridgeId = "Tav-Msg-Id";
// A message for the engine to store. Throws bad_alloc.
Message durable_message(const Settings &settings, const std::string &subject, const std::string &reply,
                        const std::string &id, std::string_view datagram);

// The beginning of the subjects on which the engine answers this bridge, or all that share messages.
std::string inbox(const Settings &settings, bool any);
// All messages of the class for this machine, or for any machine of the location.
std::string wildcard(const Settings &settings, bool any, Class kind);
// Where the engine delivers what is stored for them.
std::string deliver_subject(const Settings &settings, bool any);
// Of the bridges that share the messages for any machine; null: each gets all of them.
const char *group(const Settings &settings);
// Options for a connection of these settings: servers, credentials, TLS. Null, with the reason, when nats.c
// refuses one.
Options make_options(const Settings &settings, std::string &reason);

class Provision {
  public:
    Provision(natsConnection *connection, const Settings &settings);

    // The connection is new.
    void begin() { begun_ = result_.valid(), made_ = false, next_ms_ = 0; }
    // Begins or ends what is due. holding: whether the bridge holds durable messages.
    void tick(bool holding);
    bool done() const { return made_; }
    // Prints the state of the streams and consumers. Returns whether it is right.
    bool check() const;

  private:
    struct Consumer { // of a stream
        std::string stream, name, filter, deliver;
        const char *group;
        uint64_t delivered = 0; // and one more, at the audit before; 0: nothing waited then
    };
    StreamInfo stream_info(const std::string &name, const std::string &filter = "") const;
    ConsumerInfo consumer_info(const Consumer &consumer) const;
    bool make_stream(Class kind) const;
    bool make_consumer(const Consumer &consumer) const;
    bool make() const;
    bool audit(bool holding);

    const JetStream js_;
    const Settings &settings_;
    std::vector<Consumer> consumers_;
    bool made_ = false, begun_ = false; // begun_: the result will be of the connection before
    uint64_t next_ms_ = 0;              // when to look again, on the loop's clock
    std::future<bool> result_; // of the thread, for which it waits when it is destroyed: close the connection
                               // before
};

} // namespace tavbridge
