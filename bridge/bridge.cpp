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
constexpr size_t kMostHeard = 4096;      // endpoints of other locations to remember: about 400 KB
constexpr uint64_t kTick_ms = 500;       // resends, keep-alives and the watchdog need no finer one
constexpr uint64_t kLook_ms = 1;         // while datagrams are held: the library has no callback for "left"
constexpr uint64_t kKeepAliveTicks = 20; // 10 s: a third of the time after which the engine delivers again
constexpr uint64_t kStop_ms = 5000;      // at most, to store what was read; service managers wait 90 s
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

Bridge::~Bridge() {
    cl_timer_stop(look_timer_);
    cl_timer_stop(tick_timer_);
    deliveries_.reset();
    outbox_.reset();
    engine_.reset();
}

bool Bridge::start(std::string &reason) {
    home_.any_to_all = settings_.any_to_all;
    home_.reachable = settings_.reachable;
    if (!settings_.ipc_conf.empty()) {
        load_ipc_proxy_conf(settings_.ipc_conf.c_str());
        home_.durable = !(get_ipc_proxy_conf()->options & 1); // disable_offline_cache
    }
    if (!open_endpoints(reason)) return false;
    Engine::Handler handler;
    handler.connected = [this] {
        counters_.add(kReconnects);
        error_output(3, "tav_bridge", __LINE__, "connected to the engine");
        tavipc::notify("STATUS=connected");
        outbox_->resend(cl_event_loop_now(), true);
        resume_if_possible();
    };
    handler.disconnected = [this] {
        error_output(2, "tav_bridge", __LINE__, "lost the connection to the engine");
        tavipc::notify("STATUS=not connected");
        pause();
    };
    handler.ready = [this] { outbox_->resend(cl_event_loop_now(), true); };
    handler.control = [this](Message message) { on_message(std::move(message), false); };
    handler.durable = [this](Message message) { on_message(std::move(message), true); };
    handler.holding = [this] { return deliveries_->held() > 0; };
    handler.answered = [this](uint64_t id, bool stored, bool before) {
        outbox_->answered(id, stored, before);
        resume_if_possible();
    };
    engine_ = std::make_unique<Engine>(settings_, home_, std::move(handler));
    outbox_ = std::make_unique<Outbox>(*engine_, counters_, settings_.waiting_bytes,
                                       [this](uint64_t ticket) { pipes_.front()->done(ticket); });
    deliveries_ = std::make_unique<Deliveries>(*engine_, counters_, durable_.get(), settings_);
    if (!open_pipes(reason) || !engine_->start(reason)) return false;
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
    const tav_addr_st *own = tav_ipc_get_local_addr(control_.get());
    home_.place = {own->loc, own->hostid};
    if (own->loc == 0 || own->hostid == 0) {
        reason = "this installation has no location or no host id";
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
    const bool hub = home_.place.location == kHubLocation;
    for (int i = 0; i < (hub ? kHubPipes : 1); ++i) {
        const std::string path =
            socket_path(tav_get_location(), hub ? "_prx" + std::to_string(i) : "_proxy_");
        const auto take = [this, i](uint64_t ticket, std::string_view data, std::string_view from) {
            if (i == 0) return on_datagram(ticket, data, from);
            counters_.add(kHubCopies);
            pipes_[static_cast<size_t>(i)]->done(ticket);
        };
        pipes_.push_back(std::make_unique<Pipe>(take, [this](bool begin) { engine_->batch(begin); }));
        if (!pipes_.back()->open(path)) {
            reason = path + ": " + std::strerror(errno);
            return false;
        }
        if (i > 0) pipes_.back()->read(true);
    }
    return true;
}

// --- from local modules to the engine

void Bridge::on_datagram(uint64_t ticket, std::string_view data, std::string_view from) try {
    last_read_ms_ = cl_event_loop_now();
    if (!forward(ticket, data, from)) pipes_.front()->done(ticket);
    if (!engine_->connected() || outbox_->full() || engine_->unsent_bytes() > kMostUnsent) pause();
} catch (const std::bad_alloc &) {
    counters_.drop(kNoMemory, nullptr, "from a module");
    pipes_.front()->done(ticket);
}

// Whether the datagram has to stay in the socket until it is stored.
bool Bridge::forward(uint64_t ticket, std::string_view data, std::string_view from) {
    Subject subject;
    const Drop reason = judge_outgoing(home_, data.data(), static_cast<uint32_t>(data.size()), subject);
    tav_ipc_hdr_st header{};
    if (reason != kShort) header = tavipc::read_header(data.data());
    if (reason != kNoDrop) return counters_.drop(reason, &header, "from a module"), false;
    data = data.substr(0, tavipc::kHeaderSize + header.size); // the library ignores what follows, too
    const std::string text = subject_text(settings_.domain, subject);
    if (subject.kind != Class::kControl) {
        std::string id = message_id(data.data(), static_cast<uint32_t>(data.size()), from);
        outbox_->add(ticket, text, std::move(id), data, cl_event_loop_now());
        return true;
    }
    if (engine_->publish(text, data))
        counters_.add(kSentControl);
    else
        counters_.drop(kNoEngine, &header, "from a module");
    return false;
}

void Bridge::pause() {
    look_soon();
    if (!pipes_.front()->reading()) return;
    counters_.add(kPauses);
    pipes_.front()->read(false);
}

void Bridge::resume_if_possible() {
    if (engine_->connected() && outbox_->roomy() && engine_->unsent_bytes() <= kMostUnsent / 2)
        pipes_.front()->read(true);
}

// --- from the engine to local modules

void Bridge::on_message(Message message, bool durable) {
    const std::string_view datagram = content(message.get());
    const auto subject = parse_subject(settings_.domain, natsMsg_GetSubject(message.get()));
    const bool right_class = subject && durable == (subject->kind != Class::kControl);
    const auto size = static_cast<uint32_t>(datagram.size());
    const Drop reason = right_class ? judge_incoming(home_, *subject, datagram.data(), size) : kBadSubject;
    tav_ipc_hdr_st header{};
    if (size >= tavipc::kHeaderSize) header = tavipc::read_header(datagram.data());
    if (reason != kNoDrop) {
        counters_.drop(reason, &header, "from the engine");
        // What is not for this machine must not be taken from the machine that it is for.
        if (durable) engine_->answer(message.get(), reason == kNotHere ? kLater : "+TERM");
        return;
    }
    remember(header.src);
    if (durable) {
        deliveries_->add(std::move(message), subject->name);
        return look_soon();
    }
    if (tav_ipc_send_raw(control_.get(), subject->name.c_str(), datagram.data()) == IPC_OK)
        counters_.add(kHandedControl);
    else
        counters_.drop(kRefused, &header, "from the engine");
}

void Bridge::remember(const tav_addr_st &source) {
    const Heard key{source.loc, source.hostid, tavipc::name_text(source).text};
    const auto at = heard_.find(key);
    if (at == heard_.end() && heard_.size() >= kMostHeard) return;
    heard_[key] = cl_event_loop_now();
}

// --- answers to modules

void Bridge::on_request(const tav_addr_st &source, uint32_t reqid, uint32_t command) try {
    if (source.loc != home_.place.location) return; // other machines need not know
    std::string text;
    if (command == tavipc::kBridgeCounters) text = counters_text();
    if (command == tavipc::kBridgeHeard) text = heard_text();
    tav_ipc_response(control_.get(), &source, reqid, command, text.data(),
                     static_cast<uint32_t>(text.size()));
} catch (const std::bad_alloc &) {
    TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for an answer");
}

std::string Bridge::counters_text() const {
    const auto line = [](const char *name, uint64_t value) {
        return name + (' ' + std::to_string(value)) + '\n';
    };
    return line("connected", engine_->connected()) + line("ready", engine_->ready()) +
           line("paused", !pipes_.front()->reading()) + line("waiting", outbox_->waiting()) +
           line("waiting_bytes", outbox_->bytes()) + line("held", deliveries_->held()) +
           line("unsent_bytes", engine_->unsent_bytes()) + counters_.text();
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

void Bridge::look_soon() {
    if (!look_timer_)
        look_timer_ = cl_timer_start(
            kLook_ms, [](void *self) { static_cast<Bridge *>(self)->look(); }, this);
}

void Bridge::look() try {
    look_timer_ = 0;
    const bool held = deliveries_->poll();
    resume_if_possible();
    const uint64_t now_ms = cl_event_loop_now();
    if (stop_by_ms_ &&
        (now_ms >= stop_by_ms_ || (outbox_->waiting() == 0 && now_ms - last_read_ms_ > kQuiet_ms)))
        return cl_event_loop_stop();
    if (held || stop_by_ms_ || (!pipes_.front()->reading() && engine_->connected())) look_soon();
} catch (const std::bad_alloc &) {
    look_soon();
}

void Bridge::tick() {
    tick_timer_ = cl_timer_start(
        kTick_ms, [](void *self) { static_cast<Bridge *>(self)->tick(); }, this);
    outbox_->resend(cl_event_loop_now(), false);
    if (++ticks_ % kKeepAliveTicks == 0) deliveries_->keep_alive();
    tavipc::notify("WATCHDOG=1");
    look_soon();
}

void Bridge::stop() {
    stop_by_ms_ = cl_event_loop_now() + kStop_ms;
    look_soon();
}

} // namespace tavbridge
