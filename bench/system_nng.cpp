// NNG: a pair over ipc://, or push to pull when there are several clients; poll on the descriptors that NNG
// gives for that is the loop.
#include <cerrno>

#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <poll.h>

#include "link.h"

namespace bench {
namespace {

constexpr int kMostPerTurn = 64;
constexpr int kBuffered = 128;

void nng_check(int result, const char *what) {
    if (result == 0) return;
    errno = result == NNG_ENOMEM ? ENOMEM : EIO;
    fail(what);
}

class NngLink : public MessageLink {
  public:
    explicit NngLink(const Ends &ends) : sends_(ends.clients == 1 || !ends.server) {
        const auto several = ends.server ? nng_pull0_open : nng_push0_open;
        nng_check((ends.clients > 1 ? several : nng_pair0_open)(&socket_), "nng open");
        nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0);
        nng_socket_set_int(socket_, NNG_OPT_RECVBUF, kBuffered);
        nng_socket_set_int(socket_, NNG_OPT_SENDBUF, kBuffered);
        const std::string address = "ipc://" + ends.dir + "/nng";
        if (ends.server)
            nng_check(nng_listen(socket_, address.c_str(), nullptr, 0), "nng_listen");
        else
            nng_check(nng_dial(socket_, address.c_str(), nullptr, 0), "nng_dial");
        if (nng_socket_get_int(socket_, NNG_OPT_RECVFD, &receive_fd_)) receive_fd_ = -1;
        if (sends_) nng_check(nng_socket_get_int(socket_, NNG_OPT_SENDFD, &send_fd_), "NNG_OPT_SENDFD");
    }

    void turn(int timeout_ms) override {
        pollfd ready[] = {{receive_fd_, POLLIN, 0}, {blocked() ? send_fd_ : -1, POLLIN, 0}};
        if (poll(ready, 2, timeout_ms) <= 0) return;
        if (ready[1].revents) writable();
        if (ready[0].revents) receive();
    }

  protected:
    bool try_send(const void *data, size_t size) override {
        const int result = nng_send(socket_, const_cast<void *>(data), size, NNG_FLAG_NONBLOCK);
        if (result == NNG_EAGAIN) return false;
        nng_check(result, "nng_send");
        return true;
    }

  private:
    void receive() {
        for (int i = 0; i < kMostPerTurn; ++i) {
            nng_msg *message = nullptr;
            const int result = nng_recvmsg(socket_, &message, NNG_FLAG_NONBLOCK);
            if (result == NNG_EAGAIN) return;
            nng_check(result, "nng_recvmsg");
            handle(static_cast<const char *>(nng_msg_body(message)), nng_msg_len(message));
            nng_msg_free(message);
        }
    }

    nng_socket socket_;
    bool sends_;
    int receive_fd_ = -1, send_fd_ = -1;
};

} // namespace

std::unique_ptr<Link> make_nng(const Ends &ends) { return std::make_unique<NngLink>(ends); }

} // namespace bench
