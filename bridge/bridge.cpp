#include "bridge.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "common/datagram.h"
#include "common/facts.h"
#include "common/log.h"
#include "common/service.h"
#include "tavaux.h"

namespace tavbridge {
namespace {

constexpr int kHubLocation = 4, kHubPipes = 8; // its modules write to _prx0 to _prx7
// Bytes that nats.c may hold for its socket before the bridge stops reading. nats.c moves all of them in
// memory after each partial write, so more of them cost time.
constexpr size_t kMostUnsent = 512 << 10;
constexpr size_t kMostJoined = tavipc::kHeaderSize + tavipc::kFragmentPayload; // bytes; one can have as many
constexpr size_t kMostHeard = 4096;      // endpoints of other locations to remember: about 400 KB
constexpr uint32_t kMostSends = 64;      // datagrams for one local socket that leave with one system call
constexpr uint64_t kTick_ms = 500;       // resends, keep-alives and the watchdog need no finer one
constexpr uint64_t kKeepAliveTicks = 20; // 10 s: a third of the time after which the engine delivers again
constexpr uint64_t kStop_ms = 5000;      // at most, to store what was read; service managers wait 90 s
constexpr uint64_t kStopTick_ms = 10;    // meanwhile
constexpr uint64_t kQuiet_ms = 50;       // without a datagram: the senders have finished
constexpr const char *kLater = "-NAK {\"delay\":60000000000}"; // ns
constexpr const char *kDurableEndpoint = "tavbridgd";          // control traffic has tavipc::kBridgeEndpoint

std::string socket_path(int location, const std::string &name) {
    const char *type = GetDeployTypeStr();
    return tavipc::kSocketRoot + (type ? std::string(type) + '/' : "") + tavipc::kSocketDirectory +
           std::to_string(location) + '/' + name;
}

} // namespace

Bridge::Bridge(const Settings &settings) : settings_(settings) {}

Bridge::~Bridge() { cl_timer_stop(tick_timer_); }

bool Bridge::start(std::string &reason) {
    cl_event_loop_set_batching(kMostSends, 0);
    if (!open_endpoints(reason)) return false;
    deliveries_ = std::make_unique<Deliveries>(engine_, counters_, durable_.get(), settings_.attempts);
    if (!open_pipes(reason) || !engine_.start(reason)) return false;
    tick();
    return true;
}

bool Bridge::open_endpoints(std::string &reason) {
    control_.reset(tav_ipc_create(tavipc::kBridgeEndpoint));
    if (control_) durable_.reset(tav_ipc_create_non_recv(kDurableEndpoint, 0));
    if (!durable_) {
        reason = std::string("no endpoint: ") + std::strerror(errno);
        return false;
    }
    const auto answer = [](tav_ipc_st *, const tav_addr_st *source, uint32_t reqid, uint32_t command,
                           const void *, uint32_t, void *self) {
        static_cast<Bridge *>(self)->on_request(*source, reqid, command);
        return 0;
    };
    tav_ipc_on_request(control_.get(), answer, this);
    return true;
}

// The hub's modules write each message to all its pipes: only the first one's copy is forwarded.
bool Bridge::open_pipes(std::string &reason) {
    const bool hub = settings_.home.place.location == kHubLocation;
    for (int i = 0; i < (hub ? kHubPipes : 1); ++i) {
        const std::string path =
            socket_path(tav_get_location(), hub ? "_prx" + std::to_string(i) : "_proxy_");
        const auto take = [this, i](std::span<const Pipe::Datagram> datagrams) {
            if (i == 0) return on_datagrams(datagrams);
            for (const Pipe::Datagram &datagram : datagrams) {
                counters_.add(kHubCopies);
                pipes_[static_cast<size_t>(i)]->done(datagram.ticket);
            }
        };
        pipes_.push_back(std::make_unique<Pipe>(take));
        if (!pipes_.back()->open(path)) {
            reason = path + ": " + std::strerror(errno);
            return false;
        }
        if (i > 0) pipes_.back()->read(true);
    }
    return true;
}

// --- the engine comes and goes

void Bridge::connected() {
    counters_.add(kReconnects);
    error_output(3, "tav_bridge", __LINE__, "connected to the engine");
    tavipc::notify("STATUS=connected");
    outbox_.resend(true);
    resume_if_possible();
}

void Bridge::disconnected() {
    error_output(2, "tav_bridge", __LINE__, "lost the connection to the engine");
    tavipc::notify("STATUS=not connected");
    pause();
}

void Bridge::turn_ends() {
    deliveries_->poll();
    pipe().take_done();
    resume_if_possible();
}

void Bridge::pause() {
    if (pipe().reading()) counters_.add(kPauses);
    pipe().read(false);
}

void Bridge::resume_if_possible() {
    if (pipe().reading() || !engine_.connected()) return;
    if (outbox_.roomy() && engine_.unsent_bytes() <= kMostUnsent / 2) pipe().read(true);
}

// --- from local modules to the engine

void Bridge::on_datagrams(std::span<const Pipe::Datagram> datagrams) {
    last_read_ms_ = cl_event_loop_now();
    for (const Pipe::Datagram &datagram : datagrams) try {
            if (!forward(datagram)) pipe().done(datagram.ticket);
        } catch (const std::bad_alloc &) {
            counters_.drop(kNoMemory, datagram.bytes, "from a module");
            pipe().done(datagram.ticket);
        }
    publish_joined();
    engine_.flush();
    if (!engine_.connected() || outbox_.full() || engine_.unsent_bytes() > kMostUnsent) pause();
}

// Whether the datagram has to stay in the socket until it is stored.
bool Bridge::forward(const Pipe::Datagram &datagram) {
    Subject subject;
    std::string_view bytes = datagram.bytes;
    if (const Drop reason = judge_outgoing(settings_.home, bytes, subject); reason != kNoDrop)
        return counters_.drop(reason, bytes, "from a module"), false;
    bytes = cut_datagram(bytes); // the library ignores what follows, too
    if (subject.kind == Class::kControl) return join(std::move(subject), bytes), false;
    outbox_.add(datagram.ticket, subject_text(settings_.domain, subject), message_id(bytes, datagram.from),
                bytes);
    return true;
}

void Bridge::join(Subject &&subject, std::string_view datagram) {
    if (joined_.payload.size() + datagram.size() > kMostJoined || !(subject == joined_.subject))
        publish_joined();
    joined_.subject = std::move(subject);
    joined_.payload += datagram;
}

void Bridge::publish_joined() {
    std::string_view rest = joined_.payload;
    if (rest.empty()) return;
    const bool published = engine_.publish(subject_text(settings_.domain, joined_.subject), rest);
    while (!rest.empty()) {
        const std::string_view datagram = cut_datagram(rest);
        if (published)
            counters_.add(kSentControl);
        else
            counters_.drop(kNoEngine, datagram, "from a module");
    }
    joined_.payload.clear();
}

void Bridge::answered(uint64_t ticket, bool stored, bool before) {
    if (outbox_.answered(ticket, stored, before)) pipe().done(ticket);
}

// --- from the engine to local modules

// Judges a datagram from the engine. What is refused is counted here.
Drop Bridge::judge(const std::optional<Subject> &subject, bool durable, std::string_view datagram) {
    const bool right_class = subject && durable == (subject->kind != Class::kControl);
    const Drop reason = right_class ? judge_incoming(settings_.home, *subject, datagram) : kBadSubject;
    if (reason == kNoDrop)
        remember(tavipc::read_header(datagram.data()).src);
    else
        counters_.drop(reason, datagram, "from the engine");
    return reason;
}

void Bridge::control(natsMsg *message) {
    const auto subject = parse_subject(settings_.domain, natsMsg_GetSubject(message));
    std::string_view rest = content(message);
    do {
        const std::string_view datagram = cut_datagram(rest);
        if (judge(subject, false, datagram) != kNoDrop) continue;
        if (tav_ipc_send_raw(control_.get(), subject->name.c_str(), datagram.data()) == IPC_OK)
            counters_.add(kHandedControl);
        else
            counters_.drop(kRefused, datagram, "from the engine");
    } while (!rest.empty());
}

void Bridge::durable(Message message) {
    const auto subject = parse_subject(settings_.domain, natsMsg_GetSubject(message.get()));
    const Drop reason = judge(subject, true, content(message.get()));
    if (reason == kNoDrop) return deliveries_->add(std::move(message), subject->name);
    // What is not for this machine must not be taken from the machine that it is for.
    engine_.answer(message.get(), reason == kNotHere ? kLater : "+TERM");
}

void Bridge::remember(const tav_addr_st &source) {
    const Heard key{source.loc, source.hostid, tavipc::name_text(source).text};
    const auto at = heard_.find(key);
    if (at != heard_.end())
        at->second = cl_event_loop_now();
    else if (heard_.size() < kMostHeard)
        heard_.emplace(key, cl_event_loop_now());
}

// --- answers to modules

void Bridge::on_request(const tav_addr_st &source, uint32_t reqid, uint32_t command) try {
    if (source.loc != settings_.home.place.location) return; // other machines need not know
    std::string text;
    if (command == tavipc::kBridgeCounters) text = counters_text();
    if (command == tavipc::kBridgeHeard) text = heard_text();
    tav_ipc_response(control_.get(), &source, reqid, command, text.data(),
                     static_cast<uint32_t>(text.size()));
} catch (const std::bad_alloc &) {
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for an answer");
}

std::string Bridge::counters_text() const {
    const std::pair<const char *, uint64_t> gauges[] = {
        {"connected", engine_.connected()},      {"ready", engine_.ready()},
        {"paused", !pipes_.front()->reading()},  {"waiting", outbox_.waiting()},
        {"waiting_bytes", outbox_.bytes()},      {"held", deliveries_->held()},
        {"unsent_bytes", engine_.unsent_bytes()}};
    std::string text;
    for (const auto &[name, value] : gauges) text += std::string(name) + ' ' + std::to_string(value) + '\n';
    return text + counters_.text();
}

std::string Bridge::heard_text() const {
    std::string text;
    const uint64_t now_ms = cl_event_loop_now();
    for (const auto &[key, at_ms] : heard_)
        text += key.name + ' ' + std::to_string(key.location) + ' ' + std::to_string(key.hostid) + ' ' +
                std::to_string((now_ms - at_ms) / 1000) + '\n';
    return text;
}

// --- time

void Bridge::tick() try {
    const uint64_t now_ms = cl_event_loop_now();
    const bool quiet = outbox_.waiting() == 0 && now_ms - last_read_ms_ > kQuiet_ms;
    if (stop_by_ms_ && (quiet || now_ms >= stop_by_ms_)) return cl_event_loop_stop();
    const auto again = [](void *self) { static_cast<Bridge *>(self)->tick(); };
    tick_timer_ = cl_timer_start(stop_by_ms_ ? kStopTick_ms : kTick_ms, again, this);
    tavipc::notify("WATCHDOG=1");
    engine_.take_note();
    outbox_.resend(false);
    if (++ticks_ % kKeepAliveTicks == 0) deliveries_->keep_alive();
    turn_ends();
    engine_.flush();
} catch (const std::bad_alloc &) {
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short");
}

void Bridge::stop() {
    stop_by_ms_ = cl_event_loop_now() + kStop_ms;
    cl_timer_stop(tick_timer_);
    tick();
}

} // namespace tavbridge
