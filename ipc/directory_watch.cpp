#include "ipc/directory_watch.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <new>
#include <pthread.h>
#include <string_view>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <utility>

#include "common/facts.h"
#include "common/keep_errno.h"
#include "ipc/socket_directory.h"
#include "ipc/unshared_fd.h"
#include "tavcl_loop.h"

#pragma weak cl_io_start // another event library may lack them
#pragma weak cl_io_stop

namespace tavipc {
namespace {

constexpr long kShortLife_ms = 250; // an endpoint of a command-line tool rarely lives longer
constexpr long kRetry_ms = 5000;    // without a descriptor: rare, and a late notice of monitors does no harm
constexpr uint32_t kModeEvents = IN_ATTRIB | IN_ONLYDIR;
constexpr uint32_t kFileEvents = kModeEvents | IN_CREATE | IN_DELETE | IN_MOVE;
// In the directories above, which change rarely. A removed directory reports no event of its own while one of
// its sockets is open, even if it was removed together with those above.
constexpr uint32_t kAboveEvents = IN_CREATE | IN_DELETE | IN_MOVE | IN_ONLYDIR;

constexpr size_t kMostAbove = 8; // directories; /var, and one for the usual deployment type

using Numbers = std::array<int, 1 + kMostAbove>;
constexpr Numbers kNothing = [] {
    Numbers none;
    none.fill(-1);
    return none;
}();

constexpr pthread_key_t kNoKey = ~pthread_key_t{0}; // functions refuse it

template <long delay_ms> UniqueFd timer() {
    UniqueFd fd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    const itimerspec once{{}, {delay_ms / 1000, delay_ms % 1000 * 1'000'000}};
    if (fd && ::timerfd_settime(fd.get(), 0, &once, nullptr) != 0) fd.reset();
    return fd;
}

} // namespace

// What the listeners of one thread and location share. It lives from the first to the last of them; with an
// inotify descriptor to the end of the thread (rest).
class DirectoryWatch {
  public:
    // The calling thread's; made on first use. Null when memory is short.
    static DirectoryWatch *get(int32_t location) noexcept;
    ~DirectoryWatch();

    void add(DirectoryListener &listener) noexcept;
    void remove(DirectoryListener &listener) noexcept; // may delete the watch
    void read_events() noexcept;

  private:
    static void at_thread_end(void *first) noexcept;
    static pthread_key_t thread_key() noexcept;

    explicit DirectoryWatch(int32_t location) noexcept : location_(location), forks_(fork_count()) {}
    static void on_ready(cl_io_t, int, void *self) noexcept;
    template <class Make> void watch(Make make, bool inotify) noexcept;
    void open() noexcept;
    void find_directory() noexcept;
    void rest() noexcept;
    bool is_about_directory(const inotify_event &event, const char *name) const noexcept;
    void close() noexcept;
    void tell(const char *name, bool removed) const noexcept;

    const int32_t location_;
    const uint32_t forks_;
    bool detached_ = false; // its thread has ended
    bool inotify_ = false;  // what fd_ is; else a timer
    UnsharedFd fd_;
    cl_io_t io_ = 0;
    // inotify's numbers; -1: not watched. First the socket directory, then those above it from /var down.
    Numbers numbers_ = kNothing;
    DirectoryListener *listeners_ = nullptr;
    DirectoryWatch *next_ = nullptr;
};

// Endpoints may outlive their thread.
void DirectoryWatch::at_thread_end(void *first) noexcept {
    for (auto *watch = static_cast<DirectoryWatch *>(first); watch;) {
        DirectoryWatch *const next = watch->next_;
        watch->detached_ = true;
        watch->close();
        if (!watch->listeners_) delete watch;
        watch = next;
    }
}

// The key of each thread's list. A thread_local variable with a destructor would end the process when memory
// is short.
pthread_key_t DirectoryWatch::thread_key() noexcept {
    static const pthread_key_t key = [] {
        pthread_key_t made = kNoKey;
        return ::pthread_key_create(&made, at_thread_end) == 0 ? made : kNoKey;
    }();
    return key;
}

DirectoryWatch *DirectoryWatch::get(int32_t location) noexcept {
    auto *const first = static_cast<DirectoryWatch *>(::pthread_getspecific(thread_key()));
    for (DirectoryWatch *found = first; found; found = found->next_)
        if (found->location_ == location && found->forks_ == fork_count()) return found;
    auto *made = new (std::nothrow) DirectoryWatch(location);
    if (!made) return nullptr;
    made->next_ = first;
    if (::pthread_setspecific(thread_key(), made) == 0) return made;
    made->detached_ = true;
    delete made;
    return nullptr;
}

DirectoryWatch::~DirectoryWatch() {
    close();
    if (detached_) return;
    auto *first = static_cast<DirectoryWatch *>(::pthread_getspecific(thread_key()));
    DirectoryWatch **link = &first;
    while (*link && *link != this) link = &(*link)->next_;
    if (*link) *link = next_;
    ::pthread_setspecific(thread_key(), first);
}

void DirectoryWatch::close() noexcept {
    if (cl_io_stop) cl_io_stop(io_);
    io_ = 0;
    fd_.reset();
    numbers_ = kNothing;
}

// The release of the thread's loop ends the watch for the descriptor unseen, so each new listener starts it
// again.
void DirectoryWatch::add(DirectoryListener &listener) noexcept {
    const bool rested = fd_ && !listeners_;
    listener.next_ = std::exchange(listeners_, &listener);
    if (!cl_io_start || !cl_io_stop) return;
    const bool files = listener.interest_ == DirectoryListener::Interest::kFiles;
    if (files && !(fd_ && inotify_)) return open();
    if (!fd_) return watch(timer<kShortLife_ms>, false);
    if (files || rested) find_directory();
    if (inotify_ && numbers_ == kNothing) return watch(timer<kRetry_ms>, false);
    cl_io_stop(io_);
    io_ = cl_io_start(fd_.get(), CL_IO_READ, on_ready, this);
}

void DirectoryWatch::remove(DirectoryListener &listener) noexcept {
    DirectoryListener **link = &listeners_;
    while (*link != &listener) link = &(*link)->next_;
    *link = listener.next_;
    const bool has_inotify = fd_ && inotify_;
    if (!listeners_ && has_inotify)
        rest();
    else if (!listeners_)
        delete this;
    else if (has_inotify && listener.interest_ == DirectoryListener::Interest::kFiles)
        find_directory();
}

// Keeps the descriptor for the thread's next listener, and watches nothing. What is in its queue is about
// numbers that are not given again.
void DirectoryWatch::rest() noexcept {
    cl_io_stop(std::exchange(io_, 0));
    for (int &number : numbers_)
        if (const int old = std::exchange(number, -1); old >= 0) ::inotify_rm_watch(fd_.get(), old);
}

template <class Make> void DirectoryWatch::watch(Make make, bool inotify) noexcept {
    close();
    if (!fd_.take_from(make)) return;
    inotify_ = inotify;
    io_ = cl_io_start(fd_.get(), CL_IO_READ, on_ready, this);
    if (!io_) fd_.reset();
}

// Watches the directories that have the names now, the upper ones first: what comes after that is reported.
// The socket directory is watched for the events that the listeners need.
void DirectoryWatch::find_directory() noexcept {
    char path[kLongestSocketPath + 1];
    if (!directory_path(path, sizeof path, location_)) return;
    uint32_t events = kModeEvents;
    for (const DirectoryListener *listener = listeners_; listener; listener = listener->next_)
        if (listener->interest_ == DirectoryListener::Interest::kFiles) events = kFileEvents;
    const Numbers older = std::exchange(numbers_, kNothing);
    size_t above = 0;
    for (char *at = path + std::strlen(kSocketRoot); *at != '\0'; at = std::strchr(at, '/') + 1) {
        const char first = std::exchange(*at, '\0');
        if (++above < numbers_.size()) numbers_[above] = ::inotify_add_watch(fd_.get(), path, kAboveEvents);
        *at = first;
    }
    numbers_[0] = ::inotify_add_watch(fd_.get(), path, events);
    for (const int number : older)
        if (number >= 0 && std::ranges::find(numbers_, number) == numbers_.end())
            ::inotify_rm_watch(fd_.get(), number);
}

// Whether a directory of the path may be another one now.
bool DirectoryWatch::is_about_directory(const inotify_event &event, const char *name) const noexcept {
    char path[kLongestSocketPath + 1];
    if (event.wd < 0) return true; // events were lost
    if (event.wd == numbers_[0]) return event.mask & IN_IGNORED;
    if (!directory_path(path, sizeof path, location_)) return true;
    const char *part = path + std::strlen(kSocketRoot);
    for (size_t above = 1; above < numbers_.size(); ++above) {
        const size_t length = std::strcspn(part, "/");
        const bool other = name && std::string_view(name) != std::string_view(part, length);
        if (event.wd == numbers_[above] && !other) return true;
        part += length + (part[length] != '\0');
    }
    return false;
}

void DirectoryWatch::open() noexcept {
    watch([] { return UniqueFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)); }, true);
    if (fd_) find_directory();
    if (numbers_ == kNothing) return watch(timer<kRetry_ms>, false);
    tell(nullptr, false); // it may have changed before
}

void DirectoryWatch::tell(const char *name, bool removed) const noexcept {
    for (const DirectoryListener *listener = listeners_; listener; listener = listener->next_)
        listener->handler_(listener->owner_, name, removed);
}

void DirectoryWatch::on_ready(cl_io_t, int, void *self) noexcept {
    const KeepErrno keep;
    auto &watch = *static_cast<DirectoryWatch *>(self);
    if (watch.inotify_)
        watch.read_events();
    else
        watch.open();
}

// Handles what is in the queue now. What comes meanwhile waits, or others who change the directory without a
// pause could keep the thread here.
void DirectoryWatch::read_events() noexcept {
    constexpr size_t kBytes = 4096; // at least 15 events of the longest names
    alignas(inotify_event) char buffer[kBytes];
    bool lost = false; // the directory
    int left = 0;      // bytes
    if (fd_ && ::ioctl(fd_.get(), FIONREAD, &left) != 0) left = kBytes;
    while (left > 0 && fd_ && inotify_) {
        const ssize_t size = ::read(fd_.get(), buffer, sizeof buffer);
        if (size <= 0) break;
        left -= static_cast<int>(size);
        for (ssize_t at = 0; at < size;) {
            inotify_event event;
            std::memcpy(&event, buffer + at, sizeof event);
            const char *name = event.len > 0 ? buffer + at + sizeof event : nullptr;
            at += static_cast<ssize_t>(sizeof event + event.len);
            lost = lost || is_about_directory(event, name);
            // Lost events (IN_Q_OVERFLOW, without a number) may have been about anything.
            if (event.wd == numbers_[0] || event.wd < 0) tell(name, event.mask & (IN_DELETE | IN_MOVE));
        }
    }
    if (!lost) return;
    find_directory();
    if (numbers_ == kNothing) return watch(timer<kRetry_ms>, false);
    tell(nullptr, false);
}

void DirectoryListener::start(int32_t location) noexcept {
    assert(!watch_);
    const KeepErrno keep;
    watch_ = DirectoryWatch::get(location);
    if (watch_) watch_->add(*this);
}

void DirectoryListener::stop() noexcept {
    const KeepErrno keep;
    if (watch_) std::exchange(watch_, nullptr)->remove(*this);
}

void DirectoryListener::catch_up() noexcept {
    const KeepErrno keep;
    if (watch_) watch_->read_events();
}

} // namespace tavipc
