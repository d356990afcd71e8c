#include "provision.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "common/log.h"

namespace tavbridge {
namespace {

constexpr int64_t kConnect_ms = 2000; // for one attempt; the loop may wait this long for nats.c's lock
constexpr int64_t kPing_ms = 5000;    // a server that does not answer two of these is gone
constexpr int kPings = 2;
// Bytes for one read from the engine: the engine delays all senders for a bridge that reads slowly.
constexpr int kReadAtOnce = 256 << 10;
constexpr int64_t kSecond_ns = 1'000'000'000;
constexpr int64_t kAcknowledge_s = 30;    // then the engine delivers again; deliveries.h says "+WPI" before
constexpr std::chrono::seconds kRetry(1); // after a failure
constexpr std::chrono::seconds kAuditPause(30); // as long as the engine waits for an acknowledgement
constexpr int kStuck = 2;                       // audits without progress
constexpr uint64_t kLongLag = 1000;             // messages: more than a window or two

using StreamInfo = std::unique_ptr<jsStreamInfo, Free<jsStreamInfo_Destroy>>;
using ConsumerInfo = std::unique_ptr<jsConsumerInfo, Free<jsConsumerInfo_Destroy>>;

// The classes that are stored, each in a stream of its own.
std::vector<Class> stored_classes(const Settings &settings) {
    if (settings.home.any_to_all) return {Class::kDurable, Class::kAll};
    return {Class::kDurable};
}

std::string stream_name(const Settings &settings, Class kind) {
    return "TAV_" + settings.domain + (kind == Class::kAll ? "_ALL" : "");
}

std::vector<Consumer> consumers(const Settings &settings) {
    std::vector<Consumer> all;
    for (const bool any : {false, true}) {
        const Place &own = settings.home.place;
        const Class kind = any ? stored_classes(settings).back() : Class::kDurable;
        const bool shared = any && group(settings);
        all.push_back(
            {kind, stream_name(settings, kind),
             "L" + std::to_string(own.location) + (shared ? "_any" : "_" + std::to_string(own.hostid)),
             wildcard(settings, any, kind), deliver_subject(settings, any),
             shared ? group(settings) : nullptr});
    }
    return all;
}

JetStream jetstream(natsConnection *connection) {
    jsCtx *made = nullptr;
    natsConnection_JetStream(&made, connection, nullptr);
    return JetStream(made);
}

natsStatus get_info(jsCtx *js, const std::string &stream, StreamInfo &info, jsOptions *options = nullptr) {
    jsStreamInfo *made = nullptr;
    const natsStatus status = js_GetStreamInfo(&made, js, stream.c_str(), options, nullptr);
    info.reset(made);
    return status;
}

natsStatus get_info(jsCtx *js, const Consumer &consumer, ConsumerInfo &info) {
    jsConsumerInfo *made = nullptr;
    const natsStatus status =
        js_GetConsumerInfo(&made, js, consumer.stream.c_str(), consumer.name.c_str(), nullptr, nullptr);
    info.reset(made);
    return status;
}

natsStatus make_stream(jsCtx *js, const Settings &settings, Class kind) {
    const std::string name = stream_name(settings, kind);
    const std::string subjects = "tav." + settings.domain + ".*.*.*." + static_cast<char>(kind) + ".*.*";
    const char *const subject = subjects.c_str();
    StreamInfo info;
    const natsStatus status = get_info(js, name, info);
    if (status != NATS_NOT_FOUND) return status;
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = name.c_str();
    config.Subjects = const_cast<const char **>(&subject);
    config.SubjectsLen = 1;
    // A work queue forgets what was acknowledged.
    config.Retention = kind == Class::kAll ? js_InterestPolicy : js_WorkQueuePolicy;
    config.Discard = js_DiscardNew; // refuses what does not fit, and the bridge waits
    config.MaxBytes = static_cast<int64_t>(settings.stream_bytes);
    config.MaxAge = static_cast<int64_t>(settings.stream_age_s) * kSecond_ns;
    config.Duplicates = static_cast<int64_t>(settings.duplicates_s) * kSecond_ns;
    config.Replicas = static_cast<int64_t>(settings.replicas);
    return js_AddStream(nullptr, js, &config, nullptr, nullptr);
}

natsStatus make_consumer(jsCtx *js, const Settings &settings, const Consumer &consumer) {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Name = config.Durable = consumer.name.c_str();
    config.FilterSubject = consumer.filter.c_str();
    config.DeliverSubject = consumer.deliver.c_str();
    config.DeliverGroup = consumer.group;
    config.AckPolicy = js_AckExplicit;
    config.AckWait = kAcknowledge_s * kSecond_ns;
    config.MaxDeliver = -1;
    config.MaxAckPending = static_cast<int64_t>(settings.window);
    return js_AddConsumer(nullptr, js, consumer.stream.c_str(), &config, nullptr, nullptr);
}

bool report(natsStatus status, const std::string &what) {
    if (status == NATS_OK) return true;
    const char *detail = nats_GetLastError(nullptr);
    TAV_LOG_LIMITED(2, "tav_bridge", "%s: %s", what.c_str(), detail ? detail : natsStatus_GetText(status));
    return false;
}

} // namespace

const char *group(const Settings &settings) { return settings.home.any_to_all ? nullptr : "one"; }

std::string inbox(const Settings &settings) {
    return "_INBOX.tav." + settings.domain + '.' + std::to_string(settings.home.place.location) + '.' +
           std::to_string(settings.home.place.hostid);
}

std::string wildcard(const Settings &settings, bool any, Class kind) {
    const Place &own = settings.home.place;
    return "tav." + settings.domain + '.' + std::to_string(own.location) + '.' +
           (any ? "any" : std::to_string(own.hostid)) + ".*." + static_cast<char>(kind) + ".*.*";
}

// Without wildcards, which would not wake a consumer that waits for a subscriber.
std::string deliver_subject(const Settings &settings, bool any) {
    if (any && group(settings))
        return "_INBOX.tav." + settings.domain + '.' + std::to_string(settings.home.place.location) +
               ".any.d";
    return inbox(settings) + (any ? ".d.a" : ".d.d");
}

Options make_options(const Settings &settings, std::string &reason) {
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
    set(natsOptions_SetCustomInboxPrefix(made, (inbox(settings) + ".k").c_str()));
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
    reason = natsStatus_GetText(status);
    return nullptr;
}

// --- the thread

Provision::Provision(natsConnection *connection, const Settings &settings, const std::atomic<bool> &holding,
                     std::function<void()> ready)
    : connection_(connection), settings_(settings), holding_(holding), ready_(std::move(ready)),
      consumers_(consumers(settings)), thread_([this] { run(); }) {}

void Provision::enter(State state) {
    const std::lock_guard lock(mutex_);
    state_ = state;
    anew_ = true;
    entered_.notify_one();
}

void Provision::run() {
    const JetStream js = jetstream(connection_);
    std::unique_lock lock(mutex_);
    while (state_ != kEnd) {
        anew_ = false;
        bool good = true;
        if (state_ == kPaused) {
            entered_.wait(lock, [this] { return anew_; });
            continue;
        }
        const bool make_all = state_ == kMake;
        lock.unlock();
        good = make_all ? make(js.get()) : audit(js.get());
        if (good && make_all) ready_();
        lock.lock();
        if (anew_) continue;
        state_ = good ? kAudit : kMake;
        entered_.wait_for(lock, good ? kAuditPause : kRetry, [this] { return anew_; });
    }
}

bool Provision::make(jsCtx *js) {
    for (const Class kind : stored_classes(settings_))
        if (!report(make_stream(js, settings_, kind), "stream " + stream_name(settings_, kind))) return false;
    for (const Consumer &consumer : consumers_)
        if (!report(make_consumer(js, settings_, consumer), "consumer " + consumer.name)) return false;
    return true;
}

// Returns false when a consumer has to be made anew.
bool Provision::audit(jsCtx *js) {
    bool good = true;
    for (Consumer &consumer : consumers_) {
        // What other machines have not acknowledged stays in the other stream.
        if (consumer.kind == Class::kAll) continue;
        consumer.stuck = is_stuck(js, consumer) ? consumer.stuck + 1 : 0;
        if (consumer.stuck < kStuck) continue;
        TAV_LOG(2, "tav_bridge", "the engine does not deliver what it has: consumer %s is made anew",
                consumer.name.c_str());
        consumer.stuck = 0;
        js_DeleteConsumer(js, consumer.stream.c_str(), consumer.name.c_str(), nullptr, nullptr);
        good = false;
    }
    return good;
}

// Whether the stream has messages for the consumer, and none was delivered since the audit before.
bool Provision::is_stuck(jsCtx *js, Consumer &consumer) const {
    jsOptions options;
    jsOptions_Init(&options);
    options.Stream.Info.SubjectsFilter = consumer.filter.c_str();
    StreamInfo stream;
    ConsumerInfo info;
    if (get_info(js, consumer.stream, stream, &options) != NATS_OK || get_info(js, consumer, info) != NATS_OK)
        return false;
    const uint64_t before = std::exchange(consumer.delivered, info->Delivered.Consumer);
    const jsStreamStateSubjects *subjects = stream->State.Subjects;
    return subjects && subjects->Count > 0 && before == consumer.delivered && !holding_;
}

// --- tav-bridge --check

namespace {

bool say(bool good, const std::string &what) {
    std::printf("%s %s\n", good ? "ok  " : "FAIL", what.c_str());
    return good;
}

bool check_stream(jsCtx *js, const std::string &name) {
    StreamInfo info;
    const natsStatus status = get_info(js, name, info);
    if (status != NATS_OK) return say(false, "stream " + name + ": " + natsStatus_GetText(status));
    const auto used = info->State.Bytes, most = static_cast<uint64_t>(info->Config->MaxBytes);
    return say(info->Config->MaxBytes < 0 || used < most - most / 10,
               "stream " + name + ": " + std::to_string(info->State.Msgs) + " messages, " +
                   std::to_string(used) + " of " + std::to_string(info->Config->MaxBytes) + " bytes");
}

bool check_consumer(jsCtx *js, const Consumer &consumer) {
    ConsumerInfo info;
    const natsStatus status = get_info(js, consumer, info);
    if (status != NATS_OK) return say(false, "consumer " + consumer.name + ": " + natsStatus_GetText(status));
    return say(info->NumPending < kLongLag, "consumer " + consumer.name + " of " + consumer.stream + ": " +
                                                std::to_string(info->NumPending) + " wait, " +
                                                std::to_string(info->NumAckPending) + " are being delivered");
}

} // namespace

bool check_engine(const Settings &settings) {
    std::string reason;
    const Options options = make_options(settings, reason);
    natsConnection *made = nullptr;
    const natsStatus status = options ? natsConnection_Connect(&made, options.get()) : NATS_ERR;
    const Connection connection(made);
    if (status != NATS_OK)
        return say(false, "no connection: " + (options ? natsStatus_GetText(status) : reason));
    char url[256] = "";
    natsConnection_GetConnectedUrl(made, url, sizeof url);
    say(true, std::string("connected to ") + url);
    const JetStream js = jetstream(made);
    bool good = true;
    for (const Class kind : stored_classes(settings))
        good = check_stream(js.get(), stream_name(settings, kind)) && good;
    for (const Consumer &consumer : consumers(settings)) good = check_consumer(js.get(), consumer) && good;
    return good;
}

} // namespace tavbridge
