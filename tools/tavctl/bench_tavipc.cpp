// The works of tavctl bench over endpoints, as a module would use them.
#include <unistd.h>

#include "bench_ends.h"
#include "transfers.h"

namespace tavctl::benching {
namespace {

constexpr auto kPatience = 60s; // for one answer, one message to be taken, one file
constexpr int kTimeout_s = 60;
constexpr unsigned kSendsPerTurn = 64;
enum Command : uint32_t { kEcho, kCount, kEnd };

int on_message(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t cmd, const void *data, uint32_t size,
               void *user) {
    auto &server = *static_cast<Server *>(user);
    if (cmd == kEcho)
        tav_ipc_send(ipc, src, kEcho, data, size);
    else if (cmd == kCount && server.told.count++ == 0)
        server.begin = now_seconds();
    else if (cmd == kEnd)
        server.ended = true;
    return 0;
}
int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
               uint32_t size, void *) {
    tav_ipc_response(ipc, src, reqid, cmd, data, size);
    return 0;
}
int on_file(tav_ipc_st *, const char *path, void *) {
    unlink(path);
    return 0;
}

} // namespace

double TavipcRunner::run(tav_ipc_st *ipc, Peer &peer, const Run &run, int source) {
    ipc_ = ipc;
    peer_ = &peer;
    run_ = run;
    payload_.assign(run.kind == Kind::kFile ? 0 : run.size, 'x');
    done_ = false;
    code_ = IPC_OK;
    answered_ = outstanding_ = 0;
    times_.clear();
    tav_ipc_msg_recv(
        ipc_,
        [](tav_ipc_st *, const tav_addr_st *, uint32_t, const void *, uint32_t, void *self) {
            static_cast<TavipcRunner *>(self)->came_back();
            return 0;
        },
        this);
    peer.channel().put(run);
    begin_ = now_seconds();
    until_ = begin_ + run.seconds;
    const double result = measure(source);
    const Told told = end();
    return run.kind == Kind::kOneWay ? static_cast<double>(told.count) / told.seconds : result;
}

double TavipcRunner::measure(int source) {
    switch (run_.kind) {
    case Kind::kTrips:
        trip();
        wait();
        return median(std::move(times_));
    case Kind::kOneWay:
        send_one_way();
        return 0;
    case Kind::kLarge:
        return send_large();
    case Kind::kRequests:
        while (outstanding_ < kWindow) ask();
        wait();
        return static_cast<double>(answered_) / (now_seconds() - begin_);
    case Kind::kFile:
        tav_ipc_send_file(ipc_, &peer_->address(), ("/proc/self/fd/" + std::to_string(source)).c_str(),
                          on_status, this, kTimeout_s);
        wait();
        return static_cast<double>(run_.size) / (now_seconds() - begin_);
    }
    return 0;
}

void TavipcRunner::send_one_way() {
    for (unsigned sent = 1; now_seconds() < until_; ++sent) {
        send(kCount, payload_);
        if (sent % kSendsPerTurn == 0) turn(0);
    }
}

double TavipcRunner::send_large() {
    while (now_seconds() < until_ || times_.empty()) {
        sent_ = now_seconds();
        done_ = false;
        tav_ipc_send2(ipc_, &peer_->address(), kCount, payload_.data(),
                      static_cast<uint32_t>(payload_.size()), on_status, this, kTimeout_s);
        wait();
        times_.push_back(now_seconds() - sent_);
    }
    return median(std::move(times_));
}

Told TavipcRunner::end() {
    send(kEnd, {});
    Told told;
    while (!peer_->channel().get_now(told)) turn(1);
    return told;
}

void TavipcRunner::turn(int timeout_ms) {
    cl_event_loop_run_once(timeout_ms);
    peer_->channel().check();
}

// Refused is a message that finds too many bytes in flight.
void TavipcRunner::send(uint32_t command, const std::string &payload) {
    while (tav_ipc_send(ipc_, &peer_->address(), command, payload.data(),
                        static_cast<uint32_t>(payload.size())) != 0)
        turn(100);
}

void TavipcRunner::wait() {
    const Wait ended = run_until(
        [this] {
            peer_->channel().check();
            return done_;
        },
        kPatience + Milliseconds(static_cast<int64_t>(run_.seconds * 1000)));
    if (ended == Wait::kInterrupted) throw Problem("interrupted");
    if (ended != Wait::kDone) throw Problem("no answer from the other process of the benchmark");
    if (code_ < 0) throw failed_exchange(peer_->address(), code_);
}

void TavipcRunner::trip() {
    sent_ = now_seconds();
    if (tav_ipc_send(ipc_, &peer_->address(), kEcho, payload_.data(),
                     static_cast<uint32_t>(payload_.size())) == 0)
        return;
    code_ = IPC_ERR_SENDTO;
    done_ = true;
}

void TavipcRunner::came_back() {
    const double now = now_seconds();
    times_.push_back(now - sent_);
    if (now < until_) return trip();
    done_ = true;
}

void TavipcRunner::ask() {
    ++outstanding_;
    tav_ipc_make_request(
        ipc_, &peer_->address(), kEcho, payload_.data(), static_cast<uint32_t>(payload_.size()),
        [](int32_t code, uint32_t, const void *, uint32_t, void *self) {
            static_cast<TavipcRunner *>(self)->was_answered(code);
            return 0;
        },
        this, kTimeout_s);
}

void TavipcRunner::was_answered(int32_t code) {
    --outstanding_;
    if (code == IPC_OK)
        ++answered_;
    else
        code_ = code;
    if (code_ == IPC_OK && now_seconds() < until_) return ask();
    done_ = outstanding_ == 0 || code_ != IPC_OK;
}

int TavipcRunner::on_status(int32_t code, void *self) {
    static_cast<TavipcRunner *>(self)->code_ = code;
    static_cast<TavipcRunner *>(self)->done_ = true;
    return 0;
}

void serve_with(const Module &module, Server &server) {
    tav_ipc_msg_recv(module, on_message, &server);
    tav_ipc_on_request(module, on_request, &server);
    tav_ipc_file_recv(module, on_file, &server);
}

Told serve_tavipc(Server &server, Channel &channel, const Run &run) {
    server = {};
    // The file's name goes as soon as it is there, so that nothing is left when this process is killed.
    bool hidden = run.kind != Kind::kFile;
    run_until([&] {
        channel.check();
        hidden = hidden || drop_unfinished_files() > 0;
        return server.ended;
    });
    server.told.seconds = now_seconds() - server.begin;
    return server.told;
}

} // namespace tavctl::benching
