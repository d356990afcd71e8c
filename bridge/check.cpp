#include "check.h"

#include <cstdio>

#include "engine.h"

namespace tavbridge {
namespace {

constexpr int64_t kLongLag = 1000; // messages: more than a window or two

template <typename Info, void Free(Info *)> struct Release {
    void operator()(Info *info) const { Free(info); }
};
using StreamInfo = std::unique_ptr<jsStreamInfo, Release<jsStreamInfo, jsStreamInfo_Destroy>>;
using ConsumerInfo = std::unique_ptr<jsConsumerInfo, Release<jsConsumerInfo, jsConsumerInfo_Destroy>>;
using JetStream = std::unique_ptr<jsCtx, Release<jsCtx, jsCtx_Destroy>>;

bool say(bool good, const std::string &what) {
    std::printf("%s %s\n", good ? "ok  " : "FAIL", what.c_str());
    return good;
}

Connection connect(const Settings &settings, const Place &home) {
    std::string reason;
    const Options options = make_options(settings, reason);
    natsConnection *made = nullptr;
    const std::string inbox = "_INBOX.tav." + settings.domain + '.' + std::to_string(home.location) + '.' +
                              std::to_string(home.hostid) + ".k";
    natsStatus status = options ? natsOptions_SetCustomInboxPrefix(options.get(), inbox.c_str()) : NATS_ERR;
    if (status == NATS_OK) status = natsConnection_Connect(&made, options.get());
    Connection connection(made);
    char url[256] = "";
    if (status == NATS_OK) natsConnection_GetConnectedUrl(made, url, sizeof url);
    if (reason.empty()) reason = natsStatus_GetText(status);
    say(status == NATS_OK,
        status == NATS_OK ? std::string("connected to ") + url : "no connection: " + reason);
    return status == NATS_OK ? std::move(connection) : nullptr;
}

bool check_stream(jsCtx *js, const std::string &stream) {
    jsStreamInfo *made = nullptr;
    const natsStatus status = js_GetStreamInfo(&made, js, stream.c_str(), nullptr, nullptr);
    const StreamInfo info(made);
    if (status != NATS_OK) return say(false, "stream " + stream + ": " + natsStatus_GetText(status));
    const auto used = made->State.Bytes, most = static_cast<uint64_t>(made->Config->MaxBytes);
    return say(made->Config->MaxBytes < 0 || used < most - most / 10,
               "stream " + stream + ": " + std::to_string(made->State.Msgs) + " messages, " +
                   std::to_string(used) + " of " + std::to_string(made->Config->MaxBytes) + " bytes");
}

bool check_consumer(jsCtx *js, const std::string &stream, const std::string &consumer) {
    jsConsumerInfo *made = nullptr;
    const natsStatus status =
        js_GetConsumerInfo(&made, js, stream.c_str(), consumer.c_str(), nullptr, nullptr);
    const ConsumerInfo info(made);
    if (status != NATS_OK) return say(false, "consumer " + consumer + ": " + natsStatus_GetText(status));
    return say(made->NumPending < static_cast<uint64_t>(kLongLag),
               "consumer " + consumer + " of " + stream + ": " + std::to_string(made->NumPending) +
                   " wait, " + std::to_string(made->NumAckPending) + " are being delivered");
}

} // namespace

int check(const Settings &settings, const Problems &problems, const Place &home) {
    for (const std::string &problem : problems) say(false, problem);
    if (!problems.empty()) return 1;
    say(true, settings.path + ": location " + std::to_string(home.location) + ", host id " +
                  std::to_string(home.hostid) + ", domain " + settings.domain);
    const Connection connection = connect(settings, home);
    jsCtx *made = nullptr;
    if (!connection || natsConnection_JetStream(&made, connection.get(), nullptr) != NATS_OK) return 1;
    const JetStream js(made);
    const Class any = settings.any_to_all ? Class::kAll : Class::kDurable;
    const std::string one = stream_name(settings, Class::kDurable), all = stream_name(settings, any);
    bool good = check_stream(made, one);
    if (all != one) good = check_stream(made, all) && good;
    good = check_consumer(made, one, consumer_name(home, Class::kDurable, false)) && good;
    return check_consumer(made, all, consumer_name(home, any, true)) && good ? 0 : 1;
}

} // namespace tavbridge
