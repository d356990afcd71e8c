// tavipc.hpp - the C++20 interface of libtavipc: endpoints that own their handlers, error codes, coroutines.
//
//     using namespace tavipc;
//     Endpoint server("server", OnRequest([](EndpointRef self, const Request &request) {
//         self.respond(request, request.command, request.payload);
//     }));
//     if (!server) return server.error().value();
//
// Everything is inline over tav_ipc.h, tav_ipc_ext.h and tav_ipc_file_ext.h, whose rules for threads, limits
// and lifetimes hold here. No function throws, and the header compiles without exceptions. It allocates
// nothing that the C functions do not allocate, except the frames of coroutines: if memory for a frame is
// short, the call of the coroutine throws std::bad_alloc. An exception that leaves a handler or a coroutine
// ends the process.
//
// Lifetimes:
//  1. An Endpoint owns its handlers, so it cannot outlive them. A handler may do anything, also destroy or
//     move the Endpoint that calls it. After that it must not use its own captures.
//  2. A payload, and the address beside it, are valid until the handler returns. In a coroutine a reply's
//     payload is valid until the next co_await.
//  3. Payloads that are sent are copied before the call returns.
#ifndef TAVIPC_TAVIPC_HPP
#define TAVIPC_TAVIPC_HPP

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>

#include "tav_ipc.h"
#include "tav_ipc_ext.h"
#include "tav_ipc_file_ext.h"

namespace tavipc {

// --- errors --------------------------------------------------------------------------------------------

// The category of the library's result codes: IPC_ERR_*, and what a peer's application answered. The texts
// are those of tav_ipc_strerror.
inline const std::error_category &category() noexcept {
    static const class : public std::error_category {
        const char *name() const noexcept override { return "tavipc"; }
        std::string message(int code) const override {
            if (code == IPC_ERR_CANCELLED) return "Cancelled";
            return code == IPC_ERR_NO_PEER ? "No such endpoint" : tav_ipc_strerror(code);
        }
    } instance;
    return instance;
}
// The error of a result code; no error for 0.
inline std::error_code make_error(int32_t code) noexcept { return {code, category()}; }
// The error of an errno value.
inline std::error_code make_system_error(int error) noexcept { return {error, std::generic_category()}; }

// --- values --------------------------------------------------------------------------------------------

using Bytes = std::span<const std::byte>;

// The bytes of a text, and bytes as a text. Both borrow.
inline Bytes as_bytes(std::string_view text) noexcept { return std::as_bytes(std::span(text)); }
inline std::string_view as_text(Bytes bytes) noexcept {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// Where an endpoint is: a name of 1 to 9 characters without "/", a location, a host id. Location 0 and host
// id 0 mean "here".
class Address {
  public:
    Address() = default;
    // A name that is too long gives an address without a name; sending to it fails.
    Address(std::string_view name, uint8_t location = 0, uint32_t host = 0, uint8_t flags = 0) noexcept
        : raw_{host, {}, location, flags} {
        if (name.size() <= TAV_IPC_NAME_MAX && !name.empty())
            std::memcpy(raw_.name, name.data(), name.size());
    }
    Address(const char *name) noexcept : Address(std::string_view(name)) {}
    explicit Address(const tav_addr_st &raw) noexcept : raw_(raw) {}

    std::string_view name() const noexcept { return {raw_.name, strnlen(raw_.name, sizeof raw_.name)}; }
    uint8_t location() const noexcept { return raw_.loc; }
    uint32_t host() const noexcept { return raw_.hostid; }
    uint8_t flags() const noexcept { return raw_.flags; } // ADDR_FLAG_*
    const tav_addr_st &raw() const noexcept { return raw_; }
    // Compares name, location and host.
    friend bool operator==(const Address &a, const Address &b) noexcept {
        return tav_addr_cmp(&a.raw_, &b.raw_) == 0;
    }

  private:
    tav_addr_st raw_{};
};

struct Message {
    Address from;
    uint32_t command; // chosen by the sender
    Bytes payload;
};
struct Request : Message {
    uint32_t id; // the response carries it back
};
// The end of an exchange. Without an error: of a request the response, of anything else an empty reply.
struct Reply {
    std::error_code error{};
    uint32_t command = 0;
    Bytes payload{};
    explicit operator bool() const noexcept { return !error; }
};

// --- exchanges and files -------------------------------------------------------------------------------

using Timeout = std::chrono::milliseconds;

// A negative time-out ends at once; a longer one than 24 days is cut to 24 days.
inline int32_t milliseconds(Timeout timeout) noexcept {
    return static_cast<int32_t>(std::clamp<Timeout::rep>(timeout.count(), 0, INT32_MAX));
}

// What a coroutine can await. It begins then, and destroying a coroutine that awaits it cancels it.
class Awaitable {
  public:
    Awaitable(const Awaitable &) = delete;
    Awaitable &operator=(const Awaitable &) = delete;
    bool await_ready() const noexcept { return false; }

  protected:
    Awaitable(tav_ipc_st *ipc, const Address &to, Timeout timeout) noexcept
        : ipc_(ipc), to_(to), timeout_ms_(static_cast<uint32_t>(milliseconds(timeout))) {}
    void resume() { // it has ended
        id_ = 0;
        if (const auto coroutine = std::exchange(waiting_, nullptr)) coroutine.resume();
    }
    tav_ipc_st *ipc_;
    Address to_;
    uint32_t timeout_ms_;
    uint64_t id_ = 0;                   // 0: not outstanding
    std::coroutine_handle<> waiting_{}; // null: nobody is resumed
};

// A request, a confirmed message or a probe. It is sent when a coroutine awaits it: "co_await
// endpoint.request(...)" gives a Reply. What it was made from must live until then.
class [[nodiscard]] Exchange : public Awaitable {
  public:
    Exchange(tav_ipc_st *ipc, int kind, const Address &to, uint32_t command, Bytes payload,
             Timeout timeout) noexcept
        : Awaitable(ipc, to, timeout), kind_(kind), payload_(payload), command_(command) {}
    ~Exchange() {
        waiting_ = nullptr;
        if (id_ != 0) tav_ipc_exchange_cancel(ipc_, id_);
    }

    // co_await endpoint.request(...).wait_for_peer(): without a peer it does not end at once.
    // It returns a new object, because GCC would copy what co_await gets by reference.
    Exchange wait_for_peer() &&noexcept {
        return {ipc_, kind_ | TAV_IPC_EXCHANGE_WAIT_FOR_PEER, to_, command_, payload_, Timeout(timeout_ms_)};
    }
    bool await_suspend(std::coroutine_handle<> coroutine) noexcept {
        waiting_ = coroutine;
        if (payload_.size() > TAV_IPC_MESSAGE_MAX) return fail(EMSGSIZE);
        id_ = tav_ipc_exchange_start(ipc_, kind_, &to_.raw(), command_, payload_.data(),
                                     static_cast<uint32_t>(payload_.size()), timeout_ms_, completed, this);
        return id_ != 0 || fail(errno);
    }
    Reply await_resume() const noexcept { return reply_; }

  private:
    // The coroutine goes on at once.
    bool fail(int error) noexcept {
        reply_.error = make_system_error(error);
        return false;
    }
    static void completed(uint64_t, int32_t code, uint32_t command, const void *data, uint32_t length,
                          void *user) {
        auto &self = *static_cast<Exchange *>(user);
        self.reply_ = {make_error(code), command, {static_cast<const std::byte *>(data), length}};
        self.resume();
    }

    int kind_;
    Bytes payload_;
    uint32_t command_;
    Reply reply_{};
};

// A file that is sent: "co_await endpoint.send_file(...)" gives a std::error_code.
template <class Progress> class [[nodiscard]] FileTransfer : public Awaitable {
  public:
    FileTransfer(tav_ipc_st *ipc, const Address &to, const char *path, const char *name, Timeout timeout,
                 Progress progress) noexcept
        : Awaitable(ipc, to, timeout), path_(path), name_(name), progress_(std::move(progress)) {}
    ~FileTransfer() {
        waiting_ = nullptr;
        if (id_ != 0) tav_ipc_file_cancel(ipc_, id_);
    }

    bool await_suspend(std::coroutine_handle<> coroutine) noexcept {
        waiting_ = coroutine;
        id_ = tav_ipc_file_start(ipc_, &to_.raw(), path_, name_, timeout_ms_, 0, advanced, ended, this);
        if (id_ == 0) error_ = make_system_error(errno); // the coroutine goes on at once
        return id_ != 0;
    }
    std::error_code await_resume() const noexcept { return error_; }

  private:
    static void advanced(uint64_t, uint64_t confirmed, uint64_t size, void *user) {
        static_cast<FileTransfer *>(user)->progress_(confirmed, size);
    }
    static void ended(uint64_t, int32_t code, void *user) {
        auto &self = *static_cast<FileTransfer *>(user);
        self.error_ = make_error(code);
        self.resume();
    }

    const char *path_, *name_;
    Progress progress_;
    std::error_code error_{};
};

// A coroutine that starts at once and belongs to its Task. Destroying the Task destroys the coroutine where
// it waits, and so cancels the exchange that it awaits. A coroutine must not destroy its own Task.
class [[nodiscard]] Task {
  public:
    struct promise_type {
        Task get_return_object() noexcept {
            return Task(std::coroutine_handle<promise_type>::from_promise(*this));
        }
        std::suspend_never initial_suspend() const noexcept { return {}; }
        std::suspend_always final_suspend() const noexcept { return {}; }
        void return_void() const noexcept {}
        void unhandled_exception() const noexcept { std::terminate(); }
    };

    Task() = default;
    Task(Task &&other) noexcept : coroutine_(std::exchange(other.coroutine_, nullptr)) {}
    Task &operator=(Task &&other) noexcept {
        std::swap(coroutine_, other.coroutine_);
        return *this;
    }
    ~Task() {
        if (coroutine_) coroutine_.destroy();
    }
    bool done() const noexcept { return !coroutine_ || coroutine_.done(); }

  private:
    explicit Task(std::coroutine_handle<promise_type> coroutine) noexcept : coroutine_(coroutine) {}
    std::coroutine_handle<promise_type> coroutine_{};
};

// --- endpoints -----------------------------------------------------------------------------------------

// An endpoint that other code owns. Copying it copies a pointer, which must not be used after the endpoint
// was closed. A reply with IPC_ERR_CLOSED comes from inside the closing: let the coroutine end then.
class EndpointRef {
  public:
    explicit EndpointRef(tav_ipc_st *ipc) noexcept : ipc_(ipc) {}

    tav_ipc_st *handle() const noexcept { return ipc_; } // for the C functions
    Address address() const noexcept { return ipc_ ? Address(*tav_ipc_get_local_addr(ipc_)) : Address(); }
    bool is_local(const Address &address) const noexcept {
        return tav_ipc_is_local(ipc_, &address.raw()) == 1;
    }

    // Sends a message. No error: it was sent or queued. IPC_ERR_SENDTO as tav_ipc_send; EMSGSIZE.
    std::error_code send(const Address &to, uint32_t command, Bytes payload) const noexcept {
        if (payload.size() > TAV_IPC_MESSAGE_MAX) return make_system_error(EMSGSIZE);
        return make_error(tav_ipc_send(ipc_, &to.raw(), command, payload.data(), size_of(payload)));
    }
    // Answers a request. Errors as send.
    std::error_code respond(const Request &request, uint32_t command, Bytes payload) const noexcept {
        if (payload.size() > TAV_IPC_MESSAGE_MAX) return make_system_error(EMSGSIZE);
        return make_error(tav_ipc_response2(ipc_, &request.from.raw(), request.id, command, payload.data(),
                                            size_of(payload)));
    }

    // To be awaited: the peer's application answers; the peer's library acknowledges a message; it
    // acknowledges a probe. Errors of the reply: EINVAL, EMSGSIZE, ENOBUFS, ENOMEM, ESHUTDOWN as
    // tav_ipc_exchange_start, or IPC_ERR_NO_PEER, IPC_ERR_TIMEOUT, IPC_ERR_CLOSED, or the code of the peer.
    Exchange request(const Address &to, uint32_t command, Bytes payload, Timeout timeout) const noexcept {
        return {ipc_, TAV_IPC_EXCHANGE_REQUEST, to, command, payload, timeout};
    }
    Exchange confirmed(const Address &to, uint32_t command, Bytes payload, Timeout timeout) const noexcept {
        return {ipc_, TAV_IPC_EXCHANGE_CONFIRMED, to, command, payload, timeout};
    }
    Exchange probe(const Address &to, Timeout timeout) const noexcept {
        return {ipc_, TAV_IPC_EXCHANGE_PROBE, to, 0, {}, timeout};
    }
    // To be awaited: the peer has the whole file. path, and name (null: none), must live until then.
    // progress(confirmed, size) gets bytes. Errors as tav_ipc_file_start, which gets no flags: without a peer
    // it ends with IPC_ERR_NO_PEER. The C function can wait for one (TAV_IPC_FILE_WAIT_FOR_PEER).
    template <class Progress>
    FileTransfer<Progress> send_file(const Address &to, const char *path, const char *name, Timeout timeout,
                                     Progress progress) const noexcept {
        return {ipc_, to, path, name, timeout, std::move(progress)};
    }

    // Runs the loop until all messages have left or been dropped: no error, ETIMEDOUT, or as tav_ipc_flush.
    std::error_code flush(Timeout timeout) const noexcept {
        const int result = tav_ipc_flush(ipc_, milliseconds(timeout), nullptr);
        return make_system_error(result < 0 ? errno : result > 0 ? ETIMEDOUT : 0);
    }

  protected:
    static uint32_t size_of(Bytes payload) noexcept { return static_cast<uint32_t>(payload.size()); }
    tav_ipc_st *ipc_;
};

// Handlers of an Endpoint: any callable, held by value.
template <class F> struct OnMessage { // called with (EndpointRef, const Message &)
    explicit OnMessage(F function) : call(std::move(function)) {}
    F call;
};
template <class F> struct OnRequest { // called with (EndpointRef, const Request &)
    explicit OnRequest(F function) : call(std::move(function)) {}
    F call;
};
template <class F> struct OnFile { // called with (EndpointRef, const tav_ipc_file_st &)
    explicit OnFile(F function) : call(std::move(function)) {}
    F call;
};

// An open endpoint with its handlers. It receives; with an OnFile handler it also accepts files, and its
// address carries ADDR_FLAG_TEMP.
template <class... Handlers> class Endpoint : public EndpointRef {
  public:
    // Empty on failure; error() says why (errno of tav_ipc_create; EINVAL if name is null).
    explicit Endpoint(const char *name, Handlers... handlers) noexcept
        : EndpointRef(open(name)), error_(ipc_ ? 0 : errno), handlers_(std::move(handlers)...) {
        attach();
    }
    Endpoint(Endpoint &&other) noexcept
        : EndpointRef(std::exchange(other.ipc_, nullptr)), error_(other.error_),
          handlers_(std::move(other.handlers_)) {
        attach();
    }
    Endpoint &operator=(Endpoint &&) = delete;
    ~Endpoint() { close(); }

    explicit operator bool() const noexcept { return ipc_ != nullptr; }
    std::error_code error() const noexcept { return make_system_error(error_); }
    // Closes the endpoint: exchanges end with IPC_ERR_CLOSED from inside this call.
    void close() noexcept { tav_ipc_destroy(std::exchange(ipc_, nullptr)); }

  private:
    template <class> struct IsFile : std::false_type {};
    template <class F> struct IsFile<OnFile<F>> : std::true_type {};

    static tav_ipc_st *open(const char *name) noexcept {
        return (IsFile<Handlers>::value || ...) ? tav_ipc_create_temp(name, 1) : tav_ipc_create(name);
    }
    void attach() noexcept { // the handlers have moved with this object
        if (ipc_) std::apply([this](auto &...handler) { (this->attach(handler), ...); }, handlers_);
    }
    template <class F> void attach(OnMessage<F> &handler) noexcept {
        tav_ipc_msg_recv(
            ipc_,
            [](tav_ipc_st *ipc, const tav_addr_st *from, uint32_t command, const void *data, uint32_t size,
               void *user) {
                auto &call = static_cast<OnMessage<F> *>(user)->call;
                call(EndpointRef(ipc), Message{Address(*from), command, bytes_at(data, size)});
                return 0;
            },
            &handler);
    }
    template <class F> void attach(OnRequest<F> &handler) noexcept {
        tav_ipc_on_request(
            ipc_,
            [](tav_ipc_st *ipc, const tav_addr_st *from, uint32_t id, uint32_t command, const void *data,
               uint32_t size, void *user) {
                auto &call = static_cast<OnRequest<F> *>(user)->call;
                call(EndpointRef(ipc), Request{{Address(*from), command, bytes_at(data, size)}, id});
                return 0;
            },
            &handler);
    }
    template <class F> void attach(OnFile<F> &handler) noexcept {
        tav_ipc_on_file(
            ipc_,
            [](tav_ipc_st *ipc, const tav_ipc_file_st *file, void *user) {
                static_cast<OnFile<F> *>(user)->call(EndpointRef(ipc), *file);
            },
            nullptr, &handler);
    }
    static Bytes bytes_at(const void *data, uint32_t size) noexcept {
        return {static_cast<const std::byte *>(data), size};
    }

    int error_; // errno of a failed creation
    std::tuple<Handlers...> handlers_;
};

} // namespace tavipc

#endif // TAVIPC_TAVIPC_HPP
