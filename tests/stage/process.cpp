#include "process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavipc::stage {

namespace {

std::vector<Process *> &all_processes() {
    static std::vector<Process *> processes;
    return processes;
}

std::vector<char *> child_environment(const std::vector<std::string> &extra) {
    std::vector<char *> result;
    for (char **entry = environ; *entry; ++entry) {
        const std::string_view inherited(*entry);
        const auto name = inherited.substr(0, inherited.find('=') + 1);
        const auto replaces = [&](const std::string &e) { return e.compare(0, name.size(), name) == 0; };
        // A test or demo says itself what its modules trace and log.
        if (name == "IPC_TEST=" || name == "TAV_LOG_LEVEL=" || name == "TAV_INSTALL_ROOT=") continue;
        if (std::none_of(extra.begin(), extra.end(), replaces)) result.push_back(*entry);
    }
    for (const auto &entry : extra) result.push_back(const_cast<char *>(entry.c_str()));
    result.push_back(nullptr);
    return result;
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class MemoryFile {
  public:
    explicit MemoryFile(std::string_view content = {}) : fd_(memfd_create("stage", MFD_CLOEXEC)) {
        if (fd_ < 0 || pwrite(fd_, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
            throw std::system_error(errno, std::generic_category(), "cannot make a file in memory");
    }
    ~MemoryFile() { close(fd_); }
    MemoryFile(const MemoryFile &) = delete;
    int fd() const { return fd_; }
    std::string content() const {
        std::string text;
        char chunk[65536];
        for (ssize_t got; (got = pread(fd_, chunk, sizeof chunk, static_cast<off_t>(text.size()))) > 0;)
            text.append(chunk, static_cast<size_t>(got));
        return text;
    }

  private:
    int fd_;
};

} // namespace

Process::Process(const std::filesystem::path &program, const std::vector<std::string> &environment,
                 const std::vector<std::string> &arguments)
    : name_(program.filename()) {
    // A socket, because a write to a child that has gone must not raise a signal.
    int in[2], out[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) || pipe2(out, O_CLOEXEC))
        throw std::system_error(errno, std::generic_category(), "cannot make pipes");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[1], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string path = program;
    std::vector<char *> words{path.data()};
    for (const auto &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    const int error = posix_spawn(&pid_, path.c_str(), &actions, nullptr, words.data(),
                                  child_environment(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[1]);
    close(out[1]);
    to_child_ = in[0];
    from_child_ = out[0];
    if (error) {
        close(to_child_);
        close(from_child_);
        throw std::system_error(error, std::generic_category(), "cannot start " + path);
    }
    all_processes().push_back(this);
}

Process::~Process() {
    if (pid_ > 0) kill();
    close(to_child_);
    if (from_child_ >= 0) close(from_child_);
    std::erase(all_processes(), this);
}

void Process::say(std::string_view command) {
    const std::string line = std::string(command) + '\n';
    if (send(to_child_, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error(name_ + " takes no commands any more");
}

std::string Process::expect(std::string_view beginning, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    size_t looked_at = 0;
    for (;;) {
        for (; looked_at < events_.size(); ++looked_at) {
            if (events_[looked_at].compare(0, beginning.size(), beginning) != 0) continue;
            std::string rest = events_[looked_at].substr(beginning.size());
            events_.erase(events_.begin() + static_cast<std::ptrdiff_t>(looked_at));
            return rest;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (from_child_ >= 0 && left > 0ms && read_all(left)) continue;
        std::string said;
        for (size_t i = events_.size() - std::min<size_t>(events_.size(), 5); i < events_.size(); ++i)
            said += "\n    " + events_[i];
        throw std::runtime_error(name_ + (from_child_ < 0 ? " ended without \"" : " did not say in time \"") +
                                 std::string(beginning) + "\"; its last words:" + said);
    }
}

std::string Process::ask(std::string_view command, std::string_view beginning) {
    say(command);
    return expect(beginning);
}

bool Process::heard(std::string_view text) const {
    return std::any_of(events_.begin(), events_.end(),
                       [&](const std::string &event) { return event.find(text) != std::string::npos; });
}

bool Process::read_all(std::chrono::milliseconds limit) {
    std::vector<pollfd> waiting;
    for (const Process *process : all_processes()) waiting.push_back({process->from_child_, POLLIN, 0});
    if (poll(waiting.data(), waiting.size(), static_cast<int>(limit.count())) <= 0) return false;
    for (size_t i = 0; i < waiting.size(); ++i)
        if (waiting[i].revents) all_processes()[i]->read_some();
    return true;
}

void Process::read_some() {
    char buffer[65536];
    const ssize_t got = read(from_child_, buffer, sizeof buffer);
    if (got <= 0) {
        close(from_child_);
        from_child_ = -1;
        return;
    }
    partial_.append(buffer, static_cast<size_t>(got));
    size_t begin = 0;
    for (size_t end; (end = partial_.find('\n', begin)) != std::string::npos; begin = end + 1)
        events_.push_back(partial_.substr(begin, end - begin));
    partial_.erase(0, begin);
}

int Process::finish() {
    shutdown(to_child_, SHUT_WR);
    while (from_child_ >= 0 && read_all(60s)) {
    }
    ::kill(pid_, SIGKILL); // no effect on one whose output has ended with it: only one that hangs is left
    return wait_for(std::exchange(pid_, -1));
}

Outcome run(const std::vector<std::string> &command, std::string_view input,
            const std::vector<std::string> &environment) {
    const MemoryFile in(input), out, err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.fd(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out.fd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.fd(), STDERR_FILENO);
    std::vector<char *> words;
    for (const auto &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    pid_t pid = -1;
    const int error =
        posix_spawn(&pid, words[0], &actions, nullptr, words.data(), child_environment(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error) throw std::system_error(error, std::generic_category(), "cannot start " + command[0]);
    return {wait_for(pid), out.content(), err.content()};
}

int Process::kill() {
    signal(SIGKILL);
    return finish();
}

void Process::signal(int number) { ::kill(pid_, number); }

std::vector<std::string> words(std::string_view text) {
    std::istringstream stream{std::string(text)};
    std::vector<std::string> result;
    for (std::string word; stream >> word;) result.push_back(word);
    return result;
}

} // namespace tavipc::stage
