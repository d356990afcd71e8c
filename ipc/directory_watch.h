// Reports changes of the socket directory to endpoints at once, through the loop of their thread.
//
// All listeners of one thread and location share one inotify descriptor, because a user may have few of them
// (fs.inotify.max_user_instances, often 128). Other processes make many files in the directory: without a
// listener for files the kernel wakes the thread for changed modes only. Closing an inotify descriptor blocks
// for about 11 ms if it watches something, or did some milliseconds ago, also at the end of the process. The
// thread therefore keeps its descriptor to its end; without listeners it watches nothing. A program that has
// an endpoint for less than a quarter of a second, as command-line tools do, gets none: the loop watches a
// timer's descriptor until then. A timer also retries if no inotify descriptor can be made. The directories
// above are watched, too: if the directory is removed and made again, also with those of the deployment type,
// the new one is watched.
//
// If the event library cannot watch descriptors, no change is reported. A forked child has the listeners of
// its parent, but gets no reports.
#pragma once

#include <cstdint>

namespace tavipc {

class DirectoryWatch;

class DirectoryListener {
  public:
    enum class Interest {
        kModes, // the mode or owner of a file has changed
        kFiles  // and a file has come, gone or been renamed
    };
    // What may have changed: one file, or everything if name is null. removed: a file of this name has gone,
    // or has been replaced by renaming another. Handlers reach no user code, and neither start nor stop
    // listeners.
    using Handler = void (*)(void *owner, const char *name, bool removed);

    DirectoryListener(Interest interest, Handler handler, void *owner) noexcept
        : interest_(interest), handler_(handler), owner_(owner) {}
    ~DirectoryListener() { stop(); }
    DirectoryListener(const DirectoryListener &) = delete;
    DirectoryListener &operator=(const DirectoryListener &) = delete;

    // Starts on the calling thread, once. Listening is best effort: there is no result.
    void start(int32_t location) noexcept;
    // On the same thread, or after its end.
    void stop() noexcept;
    // Handles what has changed until now, for all listeners of the watch.
    void catch_up() noexcept;

  private:
    friend class DirectoryWatch;
    const Interest interest_;
    const Handler handler_;
    void *const owner_;
    DirectoryWatch *watch_ = nullptr;
    DirectoryListener *next_ = nullptr;
};

} // namespace tavipc
