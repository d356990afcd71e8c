#include "counters/screen.h"

#include <cmath>
#include <csignal>
#include <cstdlib>

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>

#include "cli/cli.h"

namespace tavctl {
namespace {

constexpr std::string_view kEnter = "\033[?1049h\033[?25l", kLeave = "\033[?25h\033[?1049l";
constexpr int kFatal[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS};

// Signal handlers read these.
termios before;                       // the settings of the terminal
bool has_keys = false;                // standard input is a terminal
volatile std::sig_atomic_t shown = 0; // the other screen is shown

bool in_foreground() {
    const pid_t group = tcgetpgrp(STDOUT_FILENO);
    return group < 0 ? errno == ENOTTY : group == getpgrp(); // ENOTTY: a terminal without job control
}

void write_out(std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = write(STDOUT_FILENO, text.data(), text.size());
        if (n < 0 && errno != EINTR) return;
        if (n > 0) text.remove_prefix(static_cast<size_t>(n));
    }
}

// enter and leave are safe in a signal handler. In the background they would stop the process, and the
// terminal has another owner.
void enter() {
    if (!in_foreground()) return;
    if (!shown && has_keys) tcgetattr(STDIN_FILENO, &before);
    shown = 1;
    termios keys = before;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VMIN] = 1;
    keys.c_cc[VTIME] = 0;
    if (has_keys) tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    write_out(kEnter);
}

void leave() {
    if (!shown || !in_foreground()) return;
    tcflow(STDOUT_FILENO, TCOON); // Ctrl-S would make the next line wait
    write_out(kLeave);
    if (has_keys) tcsetattr(STDIN_FILENO, TCSANOW, &before);
    shown = 0;
}

// What this process was started to ignore stays ignored.
void set_handler(int signal, void (*handler)(int), unsigned flags = 0) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) return;
    action = {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(flags);
    sigaction(signal, &action, nullptr);
}

constexpr unsigned kOnce = unsigned{SA_RESETHAND} | SA_NODEFER;

void on_end(int signal) {
    const int error = errno;
    leave();
    raise(signal); // by its default action
    errno = error;
}

// Stops in here, until SIGCONT.
void on_stop(int signal) {
    const int error = errno;
    leave();
    raise(signal);
    set_handler(signal, on_stop, kOnce);
    errno = error;
}

// After "fg". Also after SIGSTOP, which left the terminal as it was: the shell may have changed it.
void on_continue(int) {
    const int error = errno;
    enter();
    errno = error;
}

void on_resize(int) {} // ends the wait for a key

} // namespace

bool Screen::is_possible() {
    const char *kind = std::getenv("TERM");
    return isatty(STDOUT_FILENO) && kind && *kind && std::string_view(kind) != "dumb";
}

Screen::Screen() {
    has_keys = isatty(STDIN_FILENO) != 0;
    std::cout.flush();
    for (const int signal : kFatal) set_handler(signal, on_end, kOnce);
    set_handler(SIGTSTP, on_stop, kOnce);
    set_handler(SIGCONT, on_continue);
    set_handler(SIGWINCH, on_resize);
    enter();
}

Screen::~Screen() { leave(); } // the handlers do nothing any more

unsigned Screen::rows() const {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : 24;
}

void Screen::show(const std::string &text) {
    if (!in_foreground()) return;
    if (!shown) enter();
    std::string frame = "\033[H";
    for (const char c : text) frame += c == '\n' ? std::string("\033[K\r\n") : std::string(1, c);
    write_out(frame + "\033[K\033[J");
}

int Screen::wait_key(double seconds) {
    if (!isatty(STDOUT_FILENO)) return -1; // it was hung up
    const bool listens = has_keys && in_foreground();
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, listens ? 1 : 0, static_cast<int>(std::ceil(seconds * 1000))) <= 0) return 0;
    if (!in_foreground()) return 0; // since a moment ago
    char key = 0;
    return read(STDIN_FILENO, &key, 1) == 1 ? static_cast<unsigned char>(key) : -1;
}

} // namespace tavctl
