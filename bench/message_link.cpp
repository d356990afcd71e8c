#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "link.h"

namespace bench {

void fail(const char *what) {
    std::perror(what);
    std::_Exit(1);
}

void MessageLink::send(const void *data, size_t size) {
    while (!backlog_.empty() || !try_send(data, size)) {
        blocked_ = true;
        if (handling_) {
            backlog_.emplace_back(static_cast<const char *>(data), size);
            return;
        }
        turn(-1);
    }
}

void MessageLink::writable() {
    blocked_ = false;
    for (; !backlog_.empty(); backlog_.pop_front())
        if (!try_send(backlog_.front().data(), backlog_.front().size())) {
            blocked_ = true;
            return;
        }
}

void MessageLink::handle(const char *data, size_t size) {
    handling_ = true;
    on_message(data, size);
    handling_ = false;
}

void MessageLink::request(const void *data, size_t size) {
    if (serial_ == 0) on_message = [this](const char *, size_t) { on_reply(); };
    ++serial_;
    buffer_.assign(reinterpret_cast<const char *>(&serial_), sizeof serial_);
    buffer_.append(static_cast<const char *>(data), size);
    send(buffer_.data(), buffer_.size());
}

void MessageLink::answer_requests() {
    on_message = [this](const char *data, size_t size) { send(data, size); };
}

void MessageLink::send_chunk(int fd) {
    const ssize_t got = read(fd, buffer_.data(), kChunk);
    check(got >= 0, "read");
    if (got > 0) return send(buffer_.data(), static_cast<size_t>(got));
    close(fd);
    on_reply();
}

void MessageLink::send_file(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    check(fd >= 0, path);
    buffer_.resize(kChunk);
    on_message = [this, fd](const char *, size_t) { send_chunk(fd); };
    send_chunk(fd);
}

void MessageLink::receive_file(const std::string &path, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    check(fd >= 0, path.c_str());
    on_message = [this, fd, path, left = size](const char *data, size_t chunk) mutable {
        check(write(fd, data, chunk) == static_cast<ssize_t>(chunk), "write");
        left -= chunk;
        if (left == 0) close(fd), on_file(path);
        send(&left, sizeof left);
    };
}

} // namespace bench
