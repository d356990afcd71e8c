// What the bridge needs in the engine, and how it logs in there.
#include "engine.h"

namespace tavbridge {
namespace {

constexpr int64_t kConnect_ms = 2000; // for one attempt; the loop may wait this long for nats.c's lock
constexpr int64_t kPing_ms = 5000;    // a server that does not answer two of these is gone
constexpr int kPings = 2;
// Bytes for one read from the engine: the engine delays all senders for a bridge that reads slowly.
constexpr int kReadAtOnce = 256 << 10;
constexpr uint64_t kAcknowledge_s = 30; // then the engine delivers again; deliveries.h says "+WPI" before

std::string quoted(const std::string &text) { return '"' + text + '"'; } // tokens and numbers need no more

std::string prefix(const Settings &settings) { return "tav." + settings.domain + '.'; }

Resource stream(const Settings &settings, Class kind) {
    const std::string name = stream_name(settings, kind);
    const std::string subjects = prefix(settings) + "*.*.*." + static_cast<char>(kind) + ".*.*";
    const std::string ns = "000000000";
    // "discard new" refuses what does not fit, and the bridge waits. A work queue forgets what was
    // acknowledged.
    return {"$JS.API.STREAM.INFO." + name, "$JS.API.STREAM.CREATE." + name,
            "{\"name\":" + quoted(name) + ",\"subjects\":[" + quoted(subjects) +
                "],\"retention\":" + (kind == Class::kAll ? "\"interest\"" : "\"workqueue\"") +
                ",\"storage\":\"file\",\"discard\":\"new\",\"max_consumers\":-1,\"max_msgs\":-1,\"max_msg_"
                "size\":-1" +
                ",\"max_bytes\":" + std::to_string(settings.stream_bytes) +
                ",\"max_age\":" + std::to_string(settings.stream_age_s) + ns +
                ",\"duplicate_window\":" + std::to_string(settings.duplicates_s) + ns +
                ",\"num_replicas\":" + std::to_string(settings.replicas) + '}'};
}

Resource consumer(const Settings &settings, const Place &home, Class kind, bool any) {
    const std::string name = consumer_name(home, kind, any), stream = stream_name(settings, kind);
    const std::string location = std::to_string(home.location), host = std::to_string(home.hostid);
    const std::string filter =
        prefix(settings) + location + '.' + (any ? "any" : host) + ".*." + static_cast<char>(kind) + ".*.*";
    const bool shared = any && kind == Class::kDurable;
    const std::string deliver = "_INBOX." + prefix(settings) + location +
                                (shared ? ".any.d" : "." + host + ".d." + static_cast<char>(kind));
    Resource made = {
        "", "$JS.API.CONSUMER.CREATE." + stream + '.' + name + '.' + filter,
        "{\"stream_name\":" + quoted(stream) + ",\"config\":{\"durable_name\":" + quoted(name) +
            ",\"name\":" + quoted(name) + ",\"deliver_subject\":" + quoted(deliver) +
            (shared ? ",\"deliver_group\":\"one\"" : "") + ",\"filter_subject\":" + quoted(filter) +
            ",\"deliver_policy\":\"all\",\"replay_policy\":\"instant\",\"ack_policy\":\"explicit\",\"ack_"
            "wait\":" +
            std::to_string(kAcknowledge_s * 1'000'000'000) +
            ",\"max_deliver\":-1,\"max_ack_pending\":" + std::to_string(settings.window) + "}}"};
    if (kind == Class::kAll) return made; // what other machines have not acknowledged stays in that stream
    made.count_subject = "$JS.API.STREAM.INFO." + stream;
    made.count_body = "{\"subjects_filter\":" + quoted(filter) + '}';
    made.state_subject = "$JS.API.CONSUMER.INFO." + stream + '.' + name;
    made.delete_subject = "$JS.API.CONSUMER.DELETE." + stream + '.' + name;
    return made;
}

} // namespace

std::string stream_name(const Settings &settings, Class kind) {
    return "TAV_" + settings.domain + (kind == Class::kAll ? "_ALL" : "");
}

std::string consumer_name(const Place &home, Class kind, bool any) {
    const std::string location = "L" + std::to_string(home.location);
    if (any && kind == Class::kDurable) return location + "_any";
    return location + '_' + std::to_string(home.hostid);
}

std::vector<Resource> resources(const Settings &settings, const Place &home) {
    const Class any = settings.any_to_all ? Class::kAll : Class::kDurable;
    std::vector<Resource> all = {stream(settings, Class::kDurable)};
    if (any == Class::kAll) all.push_back(stream(settings, any));
    all.push_back(consumer(settings, home, Class::kDurable, false));
    all.push_back(consumer(settings, home, any, true));
    return all;
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

} // namespace tavbridge
