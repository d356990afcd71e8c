// The functions of Engine that make streams and consumers and check that they still work.
#include <algorithm>
#include <utility>

#include "common/log.h"
#include "engine.h"

namespace tavbridge {
namespace {

constexpr uint64_t kAnswer_ms = 5000;  // for a request about a stream or consumer
constexpr uint64_t kRetry_ms = 1000;   // after one that failed
constexpr uint64_t kAudit_ms = 30'000; // as long as the engine waits for an acknowledgement
constexpr int kStuck = 2;              // audits without progress

// The number behind the name at or after a place in JSON text; 0 without one.
uint64_t number_after(std::string_view json, std::string_view name, size_t from = 0) {
    const size_t at = json.find(name, from);
    return at == json.npos
               ? 0
               : std::strtoull(std::string(json.substr(at + name.size(), 20)).c_str(), nullptr, 10);
}

// The sum of the numbers in "subjects":{"...":N,...} of a stream's state.
uint64_t sum_of_subjects(std::string_view json) {
    uint64_t sum = 0;
    const size_t begin = json.find("\"subjects\":{");
    if (begin == json.npos) return 0;
    const size_t end = std::min(json.find('}', begin), json.size());
    for (size_t at = begin + 11; (at = json.find("\":", at + 1)) < end;) sum += number_after(json, "\":", at);
    return sum;
}

} // namespace

// --- streams and consumers: each is looked for, and made when it is not there

void Engine::ask(const std::string &subject, const std::string &body) {
    asked_ = (asked_ + 2) | 1;
    const std::string reply = inbox_ + '.' + std::to_string(asked_);
    natsConnection_PublishRequest(connection_.get(), subject.c_str(), reply.c_str(), body.data(),
                                  static_cast<int>(body.size()));
}

void Engine::next_resource() {
    cl_timer_stop(timer_);
    timer_ = 0;
    if (!connected_ || resources_.empty()) return;
    if (resource_ == resources_.size()) {
        ready_ = true;
        handler_.ready();
        return audit(0);
    }
    const Resource &resource = resources_[resource_];
    const bool make = making_ || resource.look_subject.empty();
    ask(make ? resource.make_subject : resource.look_subject, make ? resource.make_body : "");
    retry_resource();
}

void Engine::take_resource(std::string_view answer) {
    if (answer.find("\"error\"") == answer.npos) {
        making_ = false;
        ++resource_;
        return next_resource();
    }
    const Resource &resource = resources_[resource_];
    if (!making_ && !resource.look_subject.empty()) {
        making_ = true;
        return next_resource();
    }
    making_ = false;
    TAV_LOG_LIMITED(2, "tav_bridge", "%s: %.*s", resource.make_subject.c_str(),
                    static_cast<int>(std::min<size_t>(answer.size(), 300)), answer.data());
    asked_ += 2; // the next answer belongs to the next request
    cl_timer_stop(timer_);
    timer_ = cl_timer_start(
        kRetry_ms, [](void *self) { static_cast<Engine *>(self)->next_resource(); }, this);
}

void Engine::retry_resource() {
    const auto again = [](void *self) {
        auto *engine = static_cast<Engine *>(self);
        engine->timer_ = 0;
        engine->making_ = false;
        if (!engine->connected_) return engine->on_connection(true);
        TAV_LOG_LIMITED(2, "tav_bridge", "the engine's JetStream does not answer");
        engine->next_resource();
    };
    cl_timer_stop(timer_);
    timer_ = cl_timer_start(kAnswer_ms, again, this);
}

// --- audit: one consumer after the other

// Asks what the stream has for the next consumer. Without an answer the next audit begins anew.
void Engine::audit(size_t resource) {
    if (resource == 0) {
        cl_timer_stop(timer_);
        timer_ = cl_timer_start(
            kAudit_ms, [](void *self) { static_cast<Engine *>(self)->audit(0); }, this);
    }
    while (resource < resources_.size() && resources_[resource].count_subject.empty()) ++resource;
    resource_ = resource;
    audit_step_ = kCount;
    if (ready_ && resource < resources_.size())
        ask(resources_[resource].count_subject, resources_[resource].count_body);
}

void Engine::take_audit(std::string_view answer) {
    if (resource_ >= resources_.size()) return;
    Resource &resource = resources_[resource_];
    if (answer.find("\"error\"") != answer.npos) return audit(resource_ + 1);
    if (audit_step_ == kDelete) { // it is made again
        ready_ = false;
        resource_ = 0;
        return next_resource();
    }
    if (audit_step_ == kCount) {
        stored_ = sum_of_subjects(answer);
        audit_step_ = kState;
        return ask(resource.state_subject, "");
    }
    const uint64_t before =
        std::exchange(resource.delivered, number_after(answer, "\"delivered\":{\"consumer_seq\":"));
    const bool moves = stored_ == 0 || resource.delivered != before || handler_.holding();
    resource.stuck = moves ? 0 : resource.stuck + 1;
    if (resource.stuck < kStuck) return audit(resource_ + 1);
    TAV_LOG(2, "tav_bridge", "the engine does not deliver %llu messages: the consumer is made anew, %s",
            static_cast<unsigned long long>(stored_), resource.delete_subject.c_str());
    resource.stuck = 0;
    audit_step_ = kDelete;
    ask(resource.delete_subject, "");
}

} // namespace tavbridge
