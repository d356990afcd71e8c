#include "bench_ends.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "sockets.h"
#include "tavaux.h"
#include "transfers.h"

namespace fs = std::filesystem;

namespace tavctl::benching {
namespace {

constexpr int kSendBuffer = 4 << 20;
constexpr timeval kSlice{0, 100'000}; // a wait looks so often whether the other process lives

// Where a process is.
struct Hello {
    tav_addr_st address{};
    char path[128] = "";
};
static_assert(sizeof(Failure) != sizeof(Hello) && sizeof(Failure) != sizeof(Told));

Problem has_ended() {
    return Problem("the other process of the benchmark has ended",
                   "was it killed? The kernel's log may tell: journalctl -k");
}

template <size_t size> void set_text(char (&field)[size], const std::string &text) {
    field[text.copy(field, size - 1)] = 0;
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw Problem("the path of a socket is too long: " + path);
    path.copy(address.sun_path, path.size());
    return address;
}

Descriptor make_socket() {
    Descriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) throw system_problem("cannot make a socket");
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer); // the kernel may give less
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kSlice, sizeof kSlice);
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kSlice, sizeof kSlice);
    return fd;
}

void serve(Channel &channel) {
    Server server;
    const Module module(Module::kReceivingFiles);
    serve_with(module, server);
    RawEnd raw(socket_directory(tav_get_location()), channel);
    Hello hello;
    hello.address = *tav_ipc_get_local_addr(module);
    set_text(hello.path, raw.path());
    channel.put(hello);
    raw.connect(channel.get<Hello>().path);
    raw.hide();
    channel.put(Hello());
    for (;;) {
        const auto run = channel.get<Run>();
        channel.put(run.raw ? serve_raw(raw, run) : serve_tavipc(server, channel, run));
    }
}

[[noreturn]] void be_peer(Channel channel, pid_t parent) {
    std::signal(SIGINT, SIG_IGN); // of a terminal: the first process ends this one
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(kFailure);
    Failure failure;
    try {
        serve(channel);
    } catch (const Problem &problem) {
        failure.status = problem.status();
        set_text(failure.what, problem.what());
        set_text(failure.remedy, problem.remedy());
    } catch (const std::exception &error) {
        failure.status = kFailure;
        set_text(failure.what, error.what());
    }
    drop_unfinished_files();
    try {
        channel.put(failure);
    } catch (const Problem &) { // nobody is there who wants to know
    }
    _exit(failure.status);
}

// Removes the socket files of an ended process.
void remove_sockets(pid_t pid, const tav_addr_st &address) {
    const std::string sending = "ipc" + std::to_string(pid) + "_", own = address.name;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(socket_directory(tav_get_location()), error)) {
        const std::string name = entry.path().filename();
        if ((name == own || name.starts_with(sending)) && probe_socket(entry.path()) == SocketState::kStale)
            unlink(entry.path().c_str());
    }
}

} // namespace

void Channel::put(const void *record, size_t size) {
    if (::send(fd_.get(), record, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) throw has_ended();
}

bool Channel::get(void *record, size_t size, bool wait) {
    char bytes[sizeof(Failure)];
    const ssize_t got = recv(fd_.get(), bytes, sizeof bytes, wait ? 0 : MSG_DONTWAIT);
    const int error = errno;
    if (interrupted()) throw Problem("interrupted");
    if (got < 0 && (error == EAGAIN || error == EINTR)) return false;
    if (got == static_cast<ssize_t>(sizeof(Failure))) {
        Failure failure;
        std::memcpy(&failure, bytes, sizeof failure);
        throw Problem(failure.what, failure.remedy, static_cast<Status>(failure.status));
    }
    if (got != static_cast<ssize_t>(size)) throw has_ended();
    std::memcpy(record, bytes, size);
    return true;
}

void Channel::check() {
    const double now = now_seconds();
    if (now - checked_ < 0.1) return;
    checked_ = now;
    char byte;
    if (interrupted()) throw Problem("interrupted");
    const ssize_t there = recv(fd_.get(), &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC);
    if (there == 0 || there == static_cast<ssize_t>(sizeof(Failure))) get(&byte, sizeof byte, false);
}

RawEnd::RawEnd(const std::string &directory, Channel &channel)
    : in_(make_socket()), out_(make_socket()), channel_(channel) {
    // Longer than the name of an endpoint may be.
    const std::string wanted = directory + "/tavctl-bench-" + std::to_string(getpid());
    for (int number = 0; path_.empty(); ++number) {
        const std::string path = wanted + "-" + std::to_string(number);
        const sockaddr_un own = address_of(path);
        if (bind(in_.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0)
            path_ = path;
        else if (errno != EADDRINUSE || number > 100)
            throw system_problem("cannot bind the socket " + path);
    }
}

void RawEnd::connect(const std::string &peer) {
    const sockaddr_un to = address_of(peer);
    if (::connect(out_.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
        throw system_problem("cannot connect to " + peer);
}

void RawEnd::hide() {
    if (!path_.empty()) unlink(path_.c_str());
    path_.clear();
}

bool RawEnd::send(const void *data, size_t size, int flags) {
    while (::send(out_.get(), data, size, flags | MSG_NOSIGNAL) < 0) {
        const bool full = errno == EAGAIN,
                   ended = errno == ECONNREFUSED || errno == ENOTCONN || errno == EPIPE;
        if (!full && !ended && errno != EINTR) throw system_problem("cannot send over a plain socket");
        channel_.check();
        if (full && (flags & MSG_DONTWAIT)) return false;
    }
    if (interrupted()) throw Problem("interrupted");
    return true;
}

size_t RawEnd::receive(void *data, size_t size) {
    for (;;) {
        const ssize_t got = recv(in_.get(), data, size, 0);
        if (interrupted()) throw Problem("interrupted");
        if (got >= 0) return static_cast<size_t>(got);
        if (errno != EAGAIN && errno != EINTR) throw system_problem("cannot receive over a plain socket");
        channel_.check();
    }
}

Peer::Peer() : channel_(Descriptor()) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw system_problem("cannot make a pair of sockets");
    Descriptor own(ends[0]), other(ends[1]);
    for (const int end : ends) setsockopt(end, SOL_SOCKET, SO_RCVTIMEO, &kSlice, sizeof kSlice);
    std::cout.flush();
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throw system_problem("cannot start the other process");
    if (pid_ == 0) {
        own.close();
        be_peer(Channel(std::move(other)), parent);
    }
    channel_ = Channel(std::move(own));
}

Peer::~Peer() {
    kill(pid_, SIGTERM);
    const double patience = now_seconds() + 3;
    while (waitpid(pid_, nullptr, WNOHANG) == 0) {
        if (now_seconds() > patience) kill(pid_, SIGKILL);
        usleep(2000);
    }
    remove_sockets(pid_, address_);
}

void Peer::meet(RawEnd &own) {
    const auto hello = channel_.get<Hello>();
    address_ = hello.address;
    own.connect(hello.path);
    Hello mine;
    set_text(mine.path, own.path());
    channel_.put(mine);
    channel_.get<Hello>();
    own.hide();
}

Descriptor scratch_file(bool own) {
    const char *given = std::getenv("TMPDIR");
    const std::string directory = own && given && *given ? given : "/tmp";
    Descriptor file(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (file) return file;
    std::string path = directory + "/tavctl-bench.XXXXXX"; // a file system without files that have no name
    file = Descriptor(mkostemp(path.data(), O_CLOEXEC));
    if (!file) throw system_problem("cannot make a file in " + directory, "name another directory: TMPDIR");
    unlink(path.c_str());
    return file;
}

double median(std::vector<double> values) {
    if (values.empty()) throw Problem("nothing was measured");
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::ranges::nth_element(values, middle);
    return *middle;
}

} // namespace tavctl::benching
