#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "link.h"

namespace bench {

void fail(const char *what) {
    std::perror(what);
    std::exit(1);
}

void MessageLink::request(const void *data, size_t size) {
    requesting_ = true;
    ++next_serial_;
    buffer_.resize(sizeof next_serial_ + size);
    std::memcpy(buffer_.data(), &next_serial_, sizeof next_serial_);
    std::memcpy(buffer_.data() + sizeof next_serial_, data, size);
    send(buffer_.data(), buffer_.size());
}

void MessageLink::serve_requests() { serving_ = true; }

void MessageLink::deliver(const char *data, size_t size) {
    if (serving_) {
        send(data, size);
    } else if (requesting_) {
        on_reply();
    } else {
        on_message(data, size);
    }
}

} // namespace bench
