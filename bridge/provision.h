// What the bridge needs in the engine: options for a connection, messages to store, streams and consumers.
//
// The functions of nats.c for streams and consumers wait for answers, so they run in a thread. Each time the
// connection is made, it looks for the streams and consumers and makes those that are not there. After a
// server was killed and restarted, a consumer may deliver nothing more or skip messages of its stream. So the
// thread then looks every 90 s: if messages waited for a consumer all the time without a delivery, while
// the bridge itself held none, it deletes the consumer and makes it again.
#pragma once

#include <chrono>
#include <future>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <nats/nats.h>

#include "common/owned.h"
#include "settings.h"
#include "tavcl_ev.h"

namespace tavbridge {

using tavipc::Free;
using Message = std::unique_ptr<natsMsg, Free<natsMsg_Destroy>>;
using Options = std::unique_ptr<natsOptions, Free<natsOptions_Destroy>>;
using Connection = std::unique_ptr<natsConnection, Free<natsConnection_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Free<natsSubscription_Destroy>>;
using StreamInfo = std::unique_ptr<jsStreamInfo, Free<jsStreamInfo_Destroy>>;
using ConsumerInfo = std::unique_ptr<jsConsumerInfo, Free<jsConsumerInfo_Destroy>>;

inline constexpr int64_t kConnect_ms = 2000; // for one attempt; the loop may wait this long for nats.c's lock
inline constexpr int64_t kPing_ms = 5000;    // a server that does not answer two of these is gone
inline constexpr int kPings = 2;
// Bytes. The engine delays all senders for a bridge that reads slowly.
inline constexpr int kReadAtOnce = 256 << 10;
inline constexpr int64_t kSecond_ns = 1'000'000'000;
// Then the engine delivers again. deliveries.h says "+WPI" before.
inline constexpr int64_t kAcknowledge_s = 30;
inline constexpr uint64_t kRetry_ms = 1000;
inline constexpr uint64_t kAudit_ms = 90'000; // longer than an attempt (20 s) and the longest pause after it
inline constexpr uint64_t kLongLag = 1000;    // messages: more than a window or two

inline std::string_view content(natsMsg *message) {
    return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
}
inline constexpr int64_t kLeastPayload = 65536; // bytes that the engine must take: a datagram and its headers
// Headers with a datagram's id. The engine recognises the first one. With replicas the bridges use the second
// one: each server of a cluster (nats-server 2.9.10) decides by itself whether an id is known, and one that
// was restarted has forgotten the ids of messages that were acknowledged. It then stores what the others
// leave out, its sequence numbers differ from theirs, and acknowledgements remove other messages from it.
inline constexpr const char *kEngineId = "Nats-Msg-Id", *kBridgeId = "Tav-Msg-Id";
// A message for the engine to store. Throws bad_alloc.
inline Message durable_message(const Settings &settings, const std::string &subject, const std::string &reply,
                               const std::string &id, std::string_view datagram) {
    natsMsg *made = nullptr;
    natsStatus status = natsMsg_Create(&made, subject.c_str(), reply.c_str(), datagram.data(),
                                       static_cast<int>(datagram.size()));
    Message message(made);
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made, settings.replicas > 1 ? kBridgeId : kEngineId, id.c_str());
    if (status != NATS_OK) throw std::bad_alloc();
    return message;
}

// The classes that are stored, each in a stream of its own. The last one is that of messages for any machine.
inline std::vector<Class> stored(const Settings &settings) {
    return settings.home.any_to_all ? std::vector{Class::kDurable, Class::kAll}
                                    : std::vector{Class::kDurable};
}

inline Place place(const Settings &settings, bool any) {
    return {settings.home.place.location, any ? 0 : settings.home.place.hostid};
}

inline std::string stream_name(const Settings &settings, Class kind) {
    return "TAV_" + settings.domain + (kind == Class::kAll ? "_ALL" : "");
}

inline const char *error_text() { // of nats.c's last error in this thread
    const char *text = nats_GetLastError(nullptr);
    return text && *text ? text : "not found, or no answer";
}

// Prints a line of a check, and returns whether it is good.
template <typename... Parts> bool say(bool good, const Parts &...parts) {
    std::cout << (good ? "ok   " : "FAIL ");
    (std::cout << ... << parts) << '\n';
    return good;
}

// The beginning of the subjects on which the engine answers this bridge, or all that share messages.
inline std::string inbox(const Settings &settings, bool any) {
    return "_INBOX.tav." + settings.domain + '.' + place_text(place(settings, any));
}
// All messages of the class for this machine, or for any machine of the location.
inline std::string wildcard(const Settings &settings, bool any, Class kind) {
    return "tav." + settings.domain + '.' + place_text(place(settings, any)) + ".*." +
           static_cast<char>(kind) + ".*.*";
}
// Of the bridges that share the messages for any machine; null: each gets all of them.
inline const char *group(const Settings &settings) { return settings.home.any_to_all ? nullptr : "one"; }
// Where the engine delivers what is stored for them. Without wildcards, which would not wake a consumer that
// waits for a subscriber.
inline std::string deliver_subject(const Settings &settings, bool any) {
    if (any && group(settings)) return inbox(settings, true) + ".d";
    return inbox(settings, false) + (any ? ".d.a" : ".d.d");
}

// Options for a connection of these settings: servers, credentials, TLS. Null, with the reason, when nats.c
// refuses one.
inline Options make_options(const Settings &settings, std::string &reason) {
    natsOptions *made = nullptr;
    natsStatus status = natsOptions_Create(&made);
    Options options(made);
    const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
    std::vector<const char *> servers;
    for (const std::string &server : settings.servers) servers.push_back(server.c_str());
    set(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())));
    set(natsOptions_SetTimeout(made, kConnect_ms));
    set(natsOptions_SetPingInterval(made, kPing_ms));
    set(natsOptions_SetMaxPingsOut(made, kPings));
    set(natsOptions_SetIOBufSize(made, kReadAtOnce));
    set(natsOptions_SetName(made, "tav-bridge"));
    set(natsOptions_SetCustomInboxPrefix(made, (inbox(settings, false) + ".k").c_str()));
    // Only the servers in the file are used: those that the engine announces may be anywhere.
    set(natsOptions_SetIgnoreDiscoveredServers(made, true));
    if (settings.tls()) set(natsOptions_SetSecure(made, true));
    if (!settings.ca.empty()) set(natsOptions_LoadCATrustedCertificates(made, settings.ca.c_str()));
    if (!settings.certificate.empty())
        set(natsOptions_LoadCertificatesChain(made, settings.certificate.c_str(), settings.key.c_str()));
    if (!settings.credentials.empty())
        set(natsOptions_SetUserCredentialsFromFiles(made, settings.credentials.c_str(), nullptr));
    if (!settings.nkey.empty())
        set(natsOptions_SetNKeyFromSeed(made, settings.nkey.c_str(), settings.nkey_seed.c_str()));
    if (status == NATS_OK) return options;
    reason = std::string(natsStatus_GetText(status)) + ": " + error_text();
    return nullptr;
}

class Provision {
  public:
    Provision(natsConnection *connection, const Settings &settings) : settings_(settings) {
        jsCtx *made = nullptr;
        if (natsConnection_JetStream(&made, connection, nullptr) != NATS_OK) throw std::bad_alloc();
        js_.reset(made);
        const std::string location = "L" + std::to_string(settings.home.place.location) + '_';
        for (const bool any : {false, true}) {
            const Class kind = any ? stored(settings).back() : Class::kDurable;
            const char *shared = any ? group(settings) : nullptr;
            consumers_.push_back({stream_name(settings, kind),
                                  location + (shared ? "any" : std::to_string(settings.home.place.hostid)),
                                  wildcard(settings, any, kind), deliver_subject(settings, any), shared});
        }
    }

    // The connection is new.
    void begin() { begun_ = result_.valid(), made_ = false, next_ms_ = 0; }
    // Begins or ends what is due. holding: whether the bridge holds durable messages.
    void tick(bool holding) {
        const uint64_t now_ms = cl_event_loop_now();
        if (!result_.valid() && now_ms >= next_ms_) {
            const auto work = [this, holding, again = made_] { return again ? audit(holding) : make(); };
            result_ = std::async(std::launch::async, work);
        }
        if (!result_.valid() || result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
            return;
        made_ = result_.get() && !begun_;
        next_ms_ = begun_ ? now_ms : now_ms + (made_ ? kAudit_ms : kRetry_ms);
        begun_ = false;
    }

    bool done() const { return made_; }
    // Prints the state of the streams and consumers. Returns whether it is right.
    bool check() const {
        bool good = true;
        for (const Class kind : stored(settings_)) {
            const std::string name = stream_name(settings_, kind);
            const StreamInfo info = stream_info(name);
            const int64_t most = info ? info->Config->MaxBytes : 0;
            const bool room = info && (most < 0 || std::cmp_less(info->State.Bytes, most - most / 4));
            // -1: no limit of its own.
            const bool fits = room && static_cast<uint32_t>(info->Config->MaxMsgSize) >= kLeastPayload;
            good &= info ? say(fits && std::cmp_equal(info->Config->Replicas, settings_.replicas), "stream ",
                               name, ": ", info->State.Msgs, " messages, ", info->State.Bytes, " of ", most,
                               " bytes, replicas = ", info->Config->Replicas,
                               ", max_msg_size = ", info->Config->MaxMsgSize)
                         : say(false, "stream ", name, ": ", error_text());
        }
        for (const Consumer &consumer : consumers_) {
            const ConsumerInfo info = consumer_info(consumer);
            good &=
                info ? say(info->NumPending < kLongLag, "consumer ", consumer.name, " of ", consumer.stream,
                           ": ", info->NumPending, " wait, ", info->NumAckPending, " are being delivered")
                     : say(false, "consumer ", consumer.name, ": ", error_text());
        }
        return good;
    }

  private:
    struct Consumer { // of a stream
        std::string stream, name, filter, deliver;
        const char *group;
        uint64_t delivered = 0; // and one more, at the audit before; 0: nothing waited then
    };
    StreamInfo stream_info(const std::string &name, const std::string &filter = "") const {
        jsOptions options;
        jsOptions_Init(&options);
        if (!filter.empty()) options.Stream.Info.SubjectsFilter = filter.c_str();
        jsStreamInfo *info = nullptr;
        js_GetStreamInfo(&info, js_.get(), name.c_str(), &options, nullptr);
        return StreamInfo(info);
    }

    ConsumerInfo consumer_info(const Consumer &of) const {
        jsConsumerInfo *info = nullptr;
        js_GetConsumerInfo(&info, js_.get(), of.stream.c_str(), of.name.c_str(), nullptr, nullptr);
        return ConsumerInfo(info);
    }

    bool make_stream(Class kind) const {
        const std::string name = stream_name(settings_, kind);
        const StreamInfo info = stream_info(name);
        // All bridges must look for duplicates in the same way; see kEngineId.
        if (info && !std::cmp_equal(info->Config->Replicas, settings_.replicas))
            TAV_LOG_LIMITED(1, "tav_bridge", "stream %s: other replicas than the settings", name.c_str());
        if (info) return true;
        const std::string subjects = "tav." + settings_.domain + ".*.*.*." + static_cast<char>(kind) + ".*.*";
        const char *list[] = {subjects.c_str()};
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = name.c_str();
        config.Subjects = list;
        config.SubjectsLen = 1;
        // A work queue forgets what was acknowledged.
        config.Retention = kind == Class::kAll ? js_InterestPolicy : js_WorkQueuePolicy;
        config.Discard = js_DiscardNew; // refuses what does not fit, and the bridge waits
        config.MaxBytes = static_cast<int64_t>(settings_.stream_bytes);
        config.MaxAge = static_cast<int64_t>(settings_.stream_age_s) * kSecond_ns;
        config.Duplicates = static_cast<int64_t>(settings_.duplicates_s) * kSecond_ns;
        config.Replicas = static_cast<int64_t>(settings_.replicas);
        return js_AddStream(nullptr, js_.get(), &config, nullptr, nullptr) == NATS_OK;
    }

    bool make_consumer(const Consumer &consumer) const {
        jsConsumerConfig config;
        jsConsumerConfig_Init(&config);
        config.Name = config.Durable = consumer.name.c_str();
        config.FilterSubject = consumer.filter.c_str();
        config.DeliverSubject = consumer.deliver.c_str();
        config.DeliverGroup = consumer.group;
        config.AckPolicy = js_AckExplicit;
        config.AckWait = kAcknowledge_s * kSecond_ns;
        config.MaxDeliver = -1;
        config.MaxAckPending = static_cast<int64_t>(settings_.window);
        return js_AddConsumer(nullptr, js_.get(), consumer.stream.c_str(), &config, nullptr, nullptr) ==
               NATS_OK;
    }

    bool make() const {
        bool good = true;
        for (const Class kind : stored(settings_)) good = good && make_stream(kind);
        for (const Consumer &consumer : consumers_) good = good && make_consumer(consumer);
        if (!good) TAV_LOG_LIMITED(2, "tav_bridge", "a stream or consumer is missing: %s", error_text());
        return good;
    }

    // Returns false when a consumer has to be made anew.
    bool audit(bool holding) {
        bool good = true;
        for (Consumer &consumer : consumers_) {
            const ConsumerInfo info = consumer_info(consumer);
            if (!info) good = false; // it may be gone
            // What other machines have not acknowledged stays in the other stream.
            if (!info || consumer.stream != stream_name(settings_, Class::kDurable)) continue;
            const StreamInfo stream = stream_info(consumer.stream, consumer.filter);
            if (!stream) continue;
            const bool waits = stream->State.Subjects && stream->State.Subjects->Count > 0 && !holding;
            const uint64_t now = waits ? info->Delivered.Consumer + 1 : 0;
            if (std::exchange(consumer.delivered, now) != now || !waits) continue;
            TAV_LOG(2, "tav_bridge", "the engine does not deliver what it has: consumer %s is made anew",
                    consumer.name.c_str());
            js_DeleteConsumer(js_.get(), consumer.stream.c_str(), consumer.name.c_str(), nullptr, nullptr);
            good = false;
        }
        return good;
    }

    std::unique_ptr<jsCtx, Free<jsCtx_Destroy>> js_;
    const Settings &settings_;
    std::vector<Consumer> consumers_;
    bool made_ = false, begun_ = false; // begun_: the result will be of the connection before
    uint64_t next_ms_ = 0;              // when to look again, on the loop's clock
    std::future<bool> result_; // of the thread, for which it waits when it is destroyed: close the connection
                               // before
};

} // namespace tavbridge
