// sd-bus, peer to peer over a Unix stream: a message is a method call that wants no reply, a request one that
// does, and the payload an array of bytes. sd_bus_process and sd_bus_wait are the loop.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "link.h"

namespace bench {
namespace {

constexpr uint64_t kMostQueued = 256; // messages that wait in this process

void bus_check(int result, const char *what) {
    if (result >= 0) return;
    errno = -result;
    fail(what);
}

int open_stream(const Ends &ends) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (ends.dir + "/sdbus").copy(address.sun_path, sizeof address.sun_path - 1);
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!ends.server) {
        check(connect(fd, generic, sizeof address) == 0, "connect");
        return fd;
    }
    unlink(address.sun_path);
    check(bind(fd, generic, sizeof address) == 0 && listen(fd, 1) == 0, "listen");
    return fd;
}

class SdbusLink : public MessageLink {
  public:
    explicit SdbusLink(const Ends &ends) : server_(ends.server), fd_(open_stream(ends)) {
        if (!server_) start(fd_);
    }

    void turn(int timeout_ms) override {
        if (!bus_) start(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
        if (blocked() && !full()) writable();
        int result = sd_bus_process(bus_, nullptr);
        if (result == 0) {
            const uint64_t timeout_us =
                timeout_ms < 0 ? UINT64_MAX : static_cast<uint64_t>(timeout_ms) * 1000;
            result = sd_bus_wait(bus_, timeout_us);
        }
        if (result == -ECONNRESET) std::_Exit(1); // the other end's work is done
        if (result != -EINTR) bus_check(result, "sd-bus loop");
    }

    void request(const void *data, size_t size) override {
        const auto reply = [](sd_bus_message *message, void *self, sd_bus_error *) {
            check(!sd_bus_message_is_method_error(message, nullptr), "reply");
            payload(message);
            static_cast<SdbusLink *>(self)->on_reply();
            return 1;
        };
        sd_bus_message *call = new_call("Request", data, size);
        bus_check(sd_bus_call_async(bus_, nullptr, call, reply, this, 0), "sd_bus_call_async");
        sd_bus_message_unref(call);
    }

    void answer_requests() override {} // see on_call

  protected:
    bool try_send(const void *data, size_t size) override {
        if (full()) return false;
        sd_bus_message *call = new_call("Message", data, size);
        bus_check(sd_bus_send(bus_, call, nullptr), "sd_bus_send");
        sd_bus_message_unref(call);
        return true;
    }

  private:
    struct Bytes {
        const char *data;
        size_t size;
    };

    void start(int fd) {
        bus_check(sd_bus_new(&bus_), "sd_bus_new");
        bus_check(sd_bus_set_fd(bus_, fd, fd), "sd_bus_set_fd");
        bus_check(sd_bus_set_anonymous(bus_, 1), "sd_bus_set_anonymous");
        if (server_)
            bus_check(
                sd_bus_set_server(
                    bus_, 1, SD_ID128_MAKE(11, 22, 33, 44, 55, 66, 77, 88, 99, aa, bb, cc, dd, ee, ff, 01)),
                "sd_bus_set_server");
        bus_check(sd_bus_add_filter(bus_, nullptr, on_call, this), "sd_bus_add_filter");
        bus_check(sd_bus_start(bus_), "sd_bus_start");
    }

    static int on_call(sd_bus_message *message, void *self, sd_bus_error *) {
        if (!sd_bus_message_is_method_call(message, "bench.Link", nullptr)) return 0;
        const char *member = sd_bus_message_get_member(message);
        const Bytes bytes = payload(message);
        if (std::strcmp(member, "Message") == 0) {
            static_cast<SdbusLink *>(self)->handle(bytes.data, bytes.size);
            return 1;
        }
        sd_bus_message *reply = nullptr;
        bus_check(sd_bus_message_new_method_return(message, &reply), "reply");
        bus_check(sd_bus_message_append_array(reply, 'y', bytes.data, bytes.size), "payload");
        bus_check(sd_bus_send(nullptr, reply, nullptr), "sd_bus_send");
        sd_bus_message_unref(reply);
        return 1;
    }

    static Bytes payload(sd_bus_message *message) {
        const void *data = nullptr;
        size_t size = 0;
        bus_check(sd_bus_message_read_array(message, 'y', &data, &size), "payload");
        return {static_cast<const char *>(data), size};
    }

    sd_bus_message *new_call(const char *member, const void *data, size_t size) {
        sd_bus_message *call = nullptr;
        bus_check(sd_bus_message_new_method_call(bus_, &call, nullptr, "/bench", "bench.Link", member),
                  "call");
        bus_check(sd_bus_message_append_array(call, 'y', data, size), "payload");
        return call;
    }

    bool full() const {
        uint64_t queued = 0;
        sd_bus_get_n_queued_write(bus_, &queued);
        return queued >= kMostQueued;
    }

    bool server_;
    int fd_;
    sd_bus *bus_ = nullptr;
};

} // namespace

std::unique_ptr<Link> make_sdbus(const Ends &ends) { return std::make_unique<SdbusLink>(ends); }

} // namespace bench
