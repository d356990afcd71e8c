#include "native.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <nats/nats.h>

#include "common/datagram.h"

namespace {

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::atomic<uint64_t> native_got{0};
void native_take(natsConnection *, natsSubscription *, natsMsg *message, void *acknowledge) {
    if (acknowledge) natsMsg_Ack(message, nullptr);
    natsMsg_Destroy(message);
    ++native_got;
}

// Makes a stream and a subscription that acknowledges each message.
natsStatus subscribe_durable(natsConnection *in, natsConnection *out, jsCtx *&js_in, jsCtx *&js_out,
                             natsSubscription *&subscription) {
    jsStreamConfig stream;
    jsStreamConfig_Init(&stream);
    const char *subject = "native.x";
    stream.Name = "NATIVE";
    stream.Subjects = &subject;
    stream.SubjectsLen = 1;
    stream.Retention = js_WorkQueuePolicy;
    natsConnection_JetStream(&js_in, in, nullptr);
    natsConnection_JetStream(&js_out, out, nullptr);
    js_AddStream(nullptr, js_out, &stream, nullptr, nullptr);
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.ManualAck = true;
    options.Config.Durable = "native";
    options.Config.MaxAckPending = 256; // as the window of the bridges
    return js_Subscribe(&subscription, js_in, subject, native_take, js_in, nullptr, &options, nullptr);
}

} // namespace

int native_requests(const char *url, size_t count) {
    natsConnection *in = nullptr, *out = nullptr;
    natsSubscription *subscription = nullptr;
    const auto answer = [](natsConnection *nc, natsSubscription *, natsMsg *message, void *) {
        natsConnection_PublishString(nc, natsMsg_GetReply(message), "pong");
        natsMsg_Destroy(message);
    };
    natsOptions *options = nullptr;
    natsOptions_Create(&options);
    natsOptions_SetURL(options, url);
    natsOptions_SetSendAsap(options, true);
    natsStatus s = natsConnection_Connect(&in, options);
    if (s == NATS_OK) s = natsConnection_Connect(&out, options);
    if (s == NATS_OK) s = natsConnection_Subscribe(&subscription, in, "native.r", answer, nullptr);
    if (s == NATS_OK) s = natsConnection_Flush(in);
    std::vector<double> times;
    while (s == NATS_OK && times.size() < count) {
        natsMsg *reply = nullptr;
        const auto begin = Clock::now();
        s = natsConnection_RequestString(&reply, out, "native.r", "ping", 1000);
        times.push_back(seconds_since(begin) * 1e6);
        natsMsg_Destroy(reply);
    }
    if (s != NATS_OK) return EXIT_FAILURE;
    std::sort(times.begin(), times.end());
    std::printf("native round trip: median %.0f us, 99 %% %.0f us, %s\n", times[times.size() / 2],
                times[times.size() * 99 / 100], natsStatus_GetText(s));
    return s == NATS_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}

int native(const char *url, std::string_view kind, size_t size, uint64_t count) {
    const bool durable = kind != "core", ids = kind == "ids";
    natsConnection *in = nullptr, *out = nullptr;
    natsSubscription *subscription = nullptr;
    jsCtx *js_in = nullptr, *js_out = nullptr;
    const std::vector<char> bytes(size + tavipc::kHeaderSize, 'x');
    natsStatus s = natsConnection_ConnectTo(&in, url);
    if (s == NATS_OK) s = natsConnection_ConnectTo(&out, url);
    if (s == NATS_OK && durable) {
        s = subscribe_durable(in, out, js_in, js_out, subscription);
    } else if (s == NATS_OK) {
        s = natsConnection_Subscribe(&subscription, in, "native.x", native_take, nullptr);
        natsSubscription_SetPendingLimits(subscription, -1, -1);
        natsConnection_Flush(in);
    }
    jsPubOptions publish;
    jsPubOptions_Init(&publish);
    std::string id;
    const auto begin = Clock::now();
    for (uint64_t i = 0; s == NATS_OK && i < count; ++i) {
        while (i - native_got > 4096) std::this_thread::sleep_for(std::chrono::microseconds(50));
        if (ids) publish.MsgId = (id = "2.1001." + std::to_string(i)).c_str();
        const auto length = static_cast<int>(bytes.size());
        s = durable ? js_PublishAsync(js_out, "native.x", bytes.data(), length, &publish)
                    : natsConnection_Publish(out, "native.x", bytes.data(), length);
    }
    natsConnection_Flush(out);
    while (s == NATS_OK && native_got < count && seconds_since(begin) < 120)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::printf("native %.*s: %llu of %zu bytes in %.3f s, %s\n", static_cast<int>(kind.size()), kind.data(),
                static_cast<unsigned long long>(native_got.load()), size, seconds_since(begin),
                natsStatus_GetText(s));
    if (durable) js_DeleteStream(js_out, "NATIVE", nullptr, nullptr);
    return s == NATS_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
