#include "process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavipc::stage {

namespace {

std::vector<Process *> all_processes;

// Starts a program with these descriptors as 0, 1 and 2; -1 stands for this process's own.
pid_t spawn(const std::vector<std::string> &command, const std::vector<std::string> &environment,
            const std::array<int, 3> &descriptors) {
    const pid_t pid = fork();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid > 0) return pid;
    for (int i = 0; i < 3; ++i) dup2(descriptors[i] < 0 ? i : descriptors[i], i);
    // What modules log and trace is set by the test, not by the user's environment.
    for (const char *name : {"IPC_TEST", "TAV_LOG_LEVEL", "TAV_INSTALL_ROOT"}) unsetenv(name);
    for (const std::string &entry : environment) putenv(const_cast<char *>(entry.c_str()));
    std::vector<char *> words;
    for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    execv(words[0], words.data());
    perror(words[0]);
    _exit(127);
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string content(int fd) {
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    return pread(fd, text.data(), text.size(), 0) < 0 ? std::string() : text;
}

} // namespace

Process::Process(const std::filesystem::path &program, const std::vector<std::string> &environment,
                 std::vector<std::string> arguments)
    : name_(program.filename()) {
    // A socket, because a write to a child that has ended must not raise a signal.
    int in[2], out[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) || pipe2(out, O_CLOEXEC))
        throw std::system_error(errno, std::generic_category(), "cannot make pipes");
    to_child_ = UniqueFd(in[0]), from_child_ = UniqueFd(out[0]);
    const UniqueFd childs_input(in[1]), childs_output(out[1]);
    arguments.insert(arguments.begin(), program);
    pid_ = spawn(arguments, environment, {in[1], out[1], -1});
    all_processes.push_back(this);
}

Process::~Process() {
    if (pid_ > 0) kill();
    std::erase(all_processes, this);
}

void Process::say(std::string_view command) {
    const std::string line = std::string(command) + '\n';
    if (send(to_child_.get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error(name_ + " reads no more commands");
}

std::string Process::expect(std::string_view beginning, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (size_t next = 0;;) {
        for (; next < events_.size(); ++next) {
            if (!events_[next].starts_with(beginning)) continue;
            std::string rest = events_[next].substr(beginning.size());
            events_.erase(events_.begin() + static_cast<std::ptrdiff_t>(next));
            return rest;
        }
        const auto left = (deadline - std::chrono::steady_clock::now()) / 1ms * 1ms;
        if (from_child_ && left > 0ms && read_all(left)) continue;
        throw std::runtime_error(name_ + (from_child_ ? " did not write: " : " ended without writing: ") +
                                 std::string(beginning) +
                                 "\nits last event: " + (events_.empty() ? "none" : events_.back()));
    }
}

bool Process::heard(std::string_view text) const {
    return std::any_of(events_.begin(), events_.end(),
                       [&](const std::string &event) { return event.find(text) != std::string::npos; });
}

bool Process::read_all(std::chrono::milliseconds limit) {
    std::vector<pollfd> waiting;
    for (const Process *process : all_processes) waiting.push_back({process->from_child_.get(), POLLIN, 0});
    if (poll(waiting.data(), waiting.size(), static_cast<int>(limit.count())) <= 0) return false;
    for (size_t i = 0; i < waiting.size(); ++i)
        if (waiting[i].revents) all_processes[i]->read_some();
    return true;
}

void Process::read_some() {
    char buffer[65536];
    const ssize_t got = read(from_child_.get(), buffer, sizeof buffer);
    if (got <= 0) return from_child_.reset();
    partial_.append(buffer, static_cast<size_t>(got));
    size_t begin = 0;
    for (size_t end; (end = partial_.find('\n', begin)) != std::string::npos; begin = end + 1)
        events_.push_back(partial_.substr(begin, end - begin));
    partial_.erase(0, begin);
}

int Process::finish() {
    shutdown(to_child_.get(), SHUT_WR);
    while (from_child_ && read_all(60s)) continue;
    signal(SIGKILL); // reaches only a child that hangs: the exit status of another one is already set
    return wait_for(std::exchange(pid_, -1));
}

Outcome run(const std::vector<std::string> &command, std::string_view input,
            const std::vector<std::string> &environment) {
    const UniqueFd in(memfd_create("", MFD_CLOEXEC)), out(memfd_create("", MFD_CLOEXEC)),
        errors(memfd_create("", MFD_CLOEXEC));
    if (pwrite(in.get(), input.data(), input.size(), 0) != static_cast<ssize_t>(input.size()))
        throw std::system_error(errno, std::generic_category(), "cannot make a file in memory");
    const int status = wait_for(spawn(command, environment, {in.get(), out.get(), errors.get()}));
    return {status, content(out.get()), content(errors.get())};
}

std::vector<std::string> words(const std::string &event) {
    std::istringstream stream(event);
    return {std::istream_iterator<std::string>(stream), {}};
}

} // namespace tavipc::stage
