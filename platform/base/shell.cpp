// Runs one shell command in a process group of its own and reads its output until the shell has ended or the
// time limit is reached. Processes that the command leaves running do not prolong the call.
#include "tavbase.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/unique_fd.h"

extern char **environ;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tavipc::UniqueFd;

constexpr milliseconds kLimit{10'000}; // of one command: callers wait for it
constexpr int kPoll_ms = 20;        // delay until the end of a shell is noticed while its output stays open
constexpr int kPollAfterEof_ms = 1; // the same after the output was closed, which usually precedes the end
constexpr int kReadsPerTurn = 16;   // 64 KiB, the capacity of a pipe; endless output must not defeat kLimit

struct SpawnSettings {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    bool ok = true;

    explicit SpawnSettings(int output) {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        // Output first: its descriptor may be 0 if the process runs without standard streams.
        set(posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO));
        set(posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        sigaddset(&defaults, SIGCHLD);
        set(posix_spawnattr_setsigmask(&attributes, &none));
        set(posix_spawnattr_setsigdefault(&attributes, &defaults));
        set(posix_spawnattr_setpgroup(&attributes, 0));
        set(posix_spawnattr_setflags(&attributes,
                                     POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    }
    SpawnSettings(const SpawnSettings &) = delete;
    SpawnSettings &operator=(const SpawnSettings &) = delete;
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }

  private:
    void set(int error) { ok = ok && error == 0; }
};

pid_t spawn_shell(const char *command, int output) {
    const SpawnSettings settings(output);
    if (!settings.ok) return -1;
    char name[] = "sh", option[] = "-c";
    char *arguments[] = {name, option, const_cast<char *>(command), nullptr};
    pid_t pid = -1;
    return posix_spawn(&pid, "/bin/sh", &settings.actions, &settings.attributes, arguments, environ) == 0
               ? pid
               : -1;
}

// Keeps the first bytes of the output and counts all of it.
class Capture {
  public:
    Capture(char *out, int size) : out_(out), room_(static_cast<size_t>(size) - 1) { *out_ = '\0'; }

    void add(const char *data, size_t length) {
        any_ = any_ || length > 0;
        const size_t kept = std::min(length, room_);
        memcpy(out_, data, kept);
        out_ += kept;
        room_ -= kept;
        *out_ = '\0';
    }
    bool any() const { return any_; }

  private:
    char *out_;
    size_t room_;
    bool any_ = false;
};

// Reads what the non-blocking pipe holds. Closes it at its end.
void drain(UniqueFd &pipe, Capture &capture) {
    char buffer[4096];
    for (int reads = 0; pipe.get() >= 0 && reads < kReadsPerTurn; ++reads) {
        const ssize_t got = read(pipe.get(), buffer, sizeof buffer);
        if (got > 0) {
            capture.add(buffer, static_cast<size_t>(got));
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else if (got < 0 && errno == EAGAIN) {
            return;
        } else {
            pipe.reset();
        }
    }
}

// The status of the child as waitpid reports it. Empty until the child has ended, and also afterwards if the
// process ignores SIGCHLD, sets SA_NOCLDWAIT, or collects all its children in a handler or another thread.
using Status = std::optional<int>;

// Returns whether the child has ended.
bool has_ended(pid_t pid, int options, Status &status) {
    int value = 0;
    pid_t got;
    do got = waitpid(pid, &value, options);
    while (got < 0 && errno == EINTR);
    if (got > 0) status = value;
    return got != 0; // ECHILD: it has ended, and its status is lost
}

// Returns whether the shell ended by itself within the limit.
bool supervise(pid_t pid, UniqueFd &pipe, Capture &capture, Status &status) {
    const auto deadline = steady_clock::now() + kLimit;
    while (steady_clock::now() < deadline) {
        pollfd wait_for{pipe.get(), POLLIN, 0}; // poll only sleeps if the descriptor is negative
        poll(&wait_for, 1, pipe.get() >= 0 ? kPoll_ms : kPollAfterEof_ms);
        const bool ended = has_ended(pid, WNOHANG, status); // before the last read
        drain(pipe, capture);
        if (ended) return true;
    }
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL); // in case it has left its group
    has_ended(pid, 0, status);
    drain(pipe, capture);
    return false;
}

} // namespace

int shell_execute(const char *command, char *out, int size) noexcept {
    if (!out || size <= 0) return -1;
    Capture capture(out, size);
    if (!command) return -1;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return -1;
    UniqueFd reader(ends[0]), writer(ends[1]);
    if (fcntl(reader.get(), F_SETFL, O_NONBLOCK) != 0) return -1; // not the end of the command
    const pid_t pid = spawn_shell(command, writer.get());
    writer.reset();
    if (pid < 0) return -1;
    Status status;
    const bool in_time = supervise(pid, reader, capture, status);
    return in_time && status.value_or(0) == 0 && capture.any() ? 0 : -1;
}
