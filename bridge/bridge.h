// The bridge of one location: its sockets, its endpoints, and what flows between them and the engine.
//
//   _proxy_ (at the hub _prx0 to _prx7) -> judge_outgoing -> stored or plain message -> engine
//   engine -> judge_incoming -> deliveries or endpoint -> tav_ipc_send_raw -> local socket
//
// The two directions share nothing, so what came from the engine cannot go back there. While the engine is
// away, or has not confirmed as much as allowed, the sockets are not read: the sending modules' libraries
// hold their messages.
#pragma once

#include <cerrno>
#include <cstring>

#include "common/facts.h"
#include "common/service.h"
#include "common/socket_directory.h"
#include "deliveries.h"
#include "pipe.h"
#include "tavaux.h"

namespace tavbridge {

class Bridge : Engine::Events {
  public:
    explicit Bridge(const Settings &settings) : settings_(settings) {}
    ~Bridge() { cl_timer_stop(timer_); }

    bool start(std::string &reason) {
        if (!open_endpoints() || !open_pipes(reason)) return reason += std::strerror(errno), false;
        if (!engine_.start(reason)) return false;
        tick();
        return true;
    }

    // Ends the loop once what has come is stored, or after some seconds.
    void stop() {
        for (const auto &pipe : pipes_) pipe->unlink();
        stop_by_ms_ = cl_event_loop_now() + kStop_ms;
        cl_timer_stop(timer_);
        tick();
    }

  private:
    // Bytes that nats.c may hold for its socket before the bridge stops reading. nats.c moves all of them in
    // memory after each partial write, so more of them cost time.
    static constexpr int kMostUnsent = 512 << 10;
    // Bytes of a joined message: one datagram can have as many.
    static constexpr size_t kMostJoined = tavipc::kHeaderSize + tavipc::kFragmentPayload;
    static constexpr size_t kMostHeard = 4096; // endpoints of other locations to remember: about 400 KB
    static constexpr uint64_t kTick_ms = 500, kStopTick_ms = 10; // resends and the watchdog need no finer one
    // 10 s: a third of the time after which the engine delivers again.
    static constexpr uint64_t kKeepAliveTicks = 20;
    static constexpr uint64_t kStop_ms = 5000; // at most, to store what was read; service managers wait 90 s
    // Control traffic has tavipc::kBridgeEndpoint.
    static constexpr const char *kDurableEndpoint = "tavbridgd";

    static std::string line(const std::string &name, uint64_t value) {
        return name + ' ' + std::to_string(value) + '\n';
    }

    bool open_endpoints() {
        control_.reset(tav_ipc_create(tavipc::kBridgeEndpoint));
        if (control_) durable_.reset(tav_ipc_create_non_recv(kDurableEndpoint, 0));
        if (!durable_) return false;
        deliveries_ = std::make_unique<Deliveries>(engine_, counters_, durable_.get(), settings_);
        const auto answer = [](tav_ipc_st *, const tav_addr_st *source, uint32_t reqid, uint32_t command,
                               const void *, uint32_t, void *self) {
            static_cast<Bridge *>(self)->answer(*source, reqid, command);
            return 0;
        };
        tav_ipc_on_request(control_.get(), answer, this);
        return true;
    }

    // The hub's modules write each message to all its pipes: only the first one's copy is forwarded.
    bool open_pipes(std::string &reason) {
        const int location = settings_.home.place.location;
        const bool hub = location == tavipc::kHubLocation;
        for (int i = 0; i < (hub ? tavipc::kHubPipes : 1); ++i) {
            const auto forward = [this, i](auto ticket, auto datagram, auto time) {
                if (i == 0) return take(ticket, datagram, time);
                counters_.add(kHubCopies);
                return Message();
            };
            pipes_.push_back(std::make_unique<Pipe>(engine_, counters_, forward, [this] { taken(); }));
            const std::string path = tavipc::socket_directory(GetDeployTypeStr(), location) + '/' +
                                     (hub ? "_prx" + std::to_string(i) : "_proxy_");
            reason = path + ": ";
            if (!pipes_.back()->open(path)) return false;
            pipes_.back()->read(i > 0);
        }
        return true;
    }

    Pipe &pipe() const { return *pipes_.front(); }

    // --- from local modules to the engine

    Message take(uint64_t ticket, std::string_view datagram, std::string_view time) try {
        Subject subject;
        const Drop reason = judge_outgoing(settings_.home, datagram, subject);
        if (reason != kNoDrop) return counters_.drop(reason, datagram, "from a module"), nullptr;
        datagram = cut_datagram(datagram); // the library ignores what follows, too
        if (subject.kind != Class::kControl)
            return durable_message(settings_, subject_text(settings_.domain, subject),
                                   engine_.reply_subject(ticket), message_id(datagram, time), datagram);
        if (joined_.size() + datagram.size() > kMostJoined || !(subject == joined_subject_)) publish_joined();
        joined_subject_ = std::move(subject);
        joined_ += datagram;
        return nullptr;
    } catch (const std::bad_alloc &) {
        return counters_.drop(kNoMemory, datagram, "from a module"), nullptr;
    }

    // Control datagrams that come one after the other and have the same subject leave in one message.
    void publish_joined() {
        std::string_view rest = joined_;
        if (rest.empty()) return;
        const natsStatus result = engine_.publish(subject_text(settings_.domain, joined_subject_), rest);
        const Drop bad = result == NATS_MAX_PAYLOAD ? kTooLarge : kNoEngine;
        while (!rest.empty()) {
            const std::string_view datagram = cut_datagram(rest);
            result != NATS_OK ? counters_.drop(bad, datagram, "from a module") : counters_.add(kSentControl);
        }
        joined_.clear();
    }

    void taken() {
        publish_joined();
        engine_.flush();
        if (!has_room(1)) pipe().read(false);
    }

    // Whether no more than this part of what is allowed waits for the engine.
    bool has_room(int part) const {
        return engine_.connected() && pipe().bytes() <= settings_.waiting_bytes / part &&
               engine_.unsent_bytes() <= kMostUnsent / part;
    }

    void turn_ends() override {
        deliveries_->poll();
        pipe().take_done();
        if (!pipe().reading() && has_room(2)) pipe().read(true);
    }

    void answered(uint64_t ticket, bool stored, bool before) override {
        pipe().answered(ticket, stored, before);
    }

    void connected(bool up) override {
        error_output(up ? 3 : 2, "tav_bridge", __LINE__,
                     up ? "connected to the engine" : "lost the connection to the engine");
        tavipc::notify(up ? "STATUS=connected" : "STATUS=not connected");
        if (!up) return pipe().read(false);
        counters_.add(kReconnects);
        pipe().resend(true);
        turn_ends();
    }

    // --- from the engine to local modules

    // Judges a datagram from the engine. What is refused is counted here.
    Drop judge(const std::optional<Subject> &subject, std::string_view datagram) {
        const Drop reason = subject ? judge_incoming(settings_.home, *subject, datagram) : kBadSubject;
        if (reason != kNoDrop) return counters_.drop(reason, datagram, "from the engine"), reason;
        return remember(tavipc::read_header(datagram.data()).src), kNoDrop;
    }

    void arrived(Message &message, bool stored) override {
        const auto subject = parse_subject(settings_.domain, natsMsg_GetSubject(message.get()));
        if (!stored) return control(subject, content(message.get()));
        const Drop reason = judge(subject, content(message.get()));
        if (reason == kNoDrop) return deliveries_->add(std::move(message), *subject);
        // What is not for this machine must not be taken from the machine that it is for. The delay is in ns.
        engine_.answer(message.get(), reason == kNotHere ? "-NAK {\"delay\":60000000000}" : "+TERM");
    }

    void control(const std::optional<Subject> &subject, std::string_view payload) {
        std::optional<Batch> batch; // one alone leaves at once
        do {
            const std::string_view datagram = cut_datagram(payload);
            if (!payload.empty() && !batch) batch.emplace();
            if (judge(subject, datagram) != kNoDrop) continue;
            const auto bad = tav_ipc_send_raw(control_.get(), subject->name.c_str(), datagram.data());
            bad ? counters_.drop(kRefused, datagram, "from the engine") : counters_.add(kHandedControl);
        } while (!payload.empty());
    }

    // --- answers to modules of this location

    void remember(const tav_addr_st &source) try {
        const Heard key{tavipc::name_text(source).text, source.loc, source.hostid};
        if (heard_.size() >= kMostHeard && !heard_.contains(key)) heard_.clear();
        // A blank or line feed would make another row of the answer.
        if (is_token(std::get<0>(key))) heard_[key] = cl_event_loop_now();
    } catch (const std::bad_alloc &) { // who is there comes again
    }

    void answer(const tav_addr_st &source, uint32_t reqid, uint32_t command) try {
        if (source.loc != settings_.home.place.location) return; // other machines need not know
        std::string text;
        if (command == tavipc::kBridgeCounters)
            text = line("connected", engine_.connected()) + line("ready", engine_.ready()) +
                   line("paused", !pipe().reading()) + line("waiting", pipe().waiting()) +
                   line("waiting_bytes", pipe().bytes()) + line("held", deliveries_->held()) +
                   line("unsent_bytes", static_cast<uint64_t>(std::max(engine_.unsent_bytes(), 0))) +
                   counters_.text();
        if (command == tavipc::kBridgeHeard)
            for (const auto &[key, at_ms] : heard_)
                text += std::get<0>(key) + ' ' + std::to_string(std::get<1>(key)) +
                        line(' ' + std::to_string(std::get<2>(key)), (cl_event_loop_now() - at_ms) / 1000);
        tav_ipc_response(control_.get(), &source, reqid, command, text.data(),
                         static_cast<uint32_t>(text.size()));
    } catch (const std::bad_alloc &) {
        TAV_LOG_LIMITED(1, "tav_bridge", "memory is short for an answer");
    }

    // --- time

    void tick() try {
        const uint64_t now_ms = cl_event_loop_now();
        const bool done = pipe().all_seen() && pipe().waiting() == 0 && engine_.unsent_bytes() <= 0;
        if (stop_by_ms_ && (done || now_ms >= stop_by_ms_)) // turn_ends() acknowledges what has just left
            return turn_ends(), engine_.flush(), cl_event_loop_stop();
        const auto again = [](void *self) { static_cast<Bridge *>(self)->tick(); };
        timer_ = cl_timer_start(stop_by_ms_ ? kStopTick_ms : kTick_ms, again, this);
        tavipc::notify("WATCHDOG=1");
        engine_.tick(deliveries_->held() > 0);
        if (engine_.connected() && engine_.unsent_bytes() <= 0)
            pipe().resend(false); // the first copies have left
        if (++ticks_ % kKeepAliveTicks == 0) deliveries_->keep_alive();
        turn_ends();
        engine_.flush();
    } catch (const std::exception &error) {
        TAV_LOG_LIMITED(1, "tav_bridge", "%s", error.what());
    }

    using Heard = std::tuple<std::string, uint8_t, uint32_t>; // name, location, host id

    const Settings &settings_;
    Counters counters_;
    std::unique_ptr<tav_ipc_st, Free<tav_ipc_destroy>> control_, durable_;
    Engine engine_{settings_, *this};
    std::unique_ptr<Deliveries> deliveries_;
    std::vector<std::unique_ptr<Pipe>> pipes_;
    std::string joined_; // datagrams with joined_subject_
    Subject joined_subject_;
    std::map<Heard, uint64_t> heard_; // when, on the loop's clock
    uint64_t stop_by_ms_ = 0, ticks_ = 0;
    cl_timer_t timer_ = 0;
};

} // namespace tavbridge
