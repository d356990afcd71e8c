// ZeroMQ: a PAIR over ipc://, or PUSH to PULL when there are several clients; zmq_poll is the loop.
#include <cerrno>

#include <zmq.h>

#include "link.h"

namespace bench {
namespace {

constexpr int kMostPerTurn = 64;

class ZeromqLink : public MessageLink {
  public:
    explicit ZeromqLink(const Ends &ends) : context_(zmq_ctx_new()) {
        const int several = ends.server ? ZMQ_PULL : ZMQ_PUSH;
        socket_ = zmq_socket(context_, ends.clients > 1 ? several : ZMQ_PAIR);
        const std::string address = "ipc://" + ends.dir + "/zeromq";
        const auto open = ends.server ? zmq_bind : zmq_connect;
        check(open(socket_, address.c_str()) == 0, "zmq");
    }

    void turn(int timeout_ms) override {
        const auto events = static_cast<short>(ZMQ_POLLIN | (blocked() ? ZMQ_POLLOUT : 0));
        zmq_pollitem_t item{socket_, 0, events, 0};
        if (zmq_poll(&item, 1, timeout_ms) <= 0) return;
        if (item.revents & ZMQ_POLLOUT) writable();
        if (item.revents & ZMQ_POLLIN) receive();
    }

  protected:
    bool try_send(const void *data, size_t size) override {
        if (zmq_send(socket_, data, size, ZMQ_DONTWAIT) >= 0) return true;
        check(errno == EAGAIN, "zmq_send");
        return false;
    }

  private:
    void receive() {
        for (int i = 0; i < kMostPerTurn; ++i) {
            zmq_msg_t message;
            zmq_msg_init(&message);
            if (zmq_msg_recv(&message, socket_, ZMQ_DONTWAIT) < 0)
                return check(errno == EAGAIN, "zmq_msg_recv");
            handle(static_cast<const char *>(zmq_msg_data(&message)), zmq_msg_size(&message));
            zmq_msg_close(&message);
        }
    }

    void *context_;
    void *socket_;
};

} // namespace

std::unique_ptr<Link> make_zeromq(const Ends &ends) { return std::make_unique<ZeromqLink>(ends); }

} // namespace bench
