// A forked child has only the thread that forked. A mutex that another thread had locked stays locked there.
#pragma once

#include <mutex>
#include <pthread.h>

namespace tavipc {

// Makes every fork wait until the mutex is free, so that the child gets it unlocked. To be called once for
// each mutex, when the library is loaded, before anything can fork. False when memory is short.
template <std::mutex &mutex> bool lock_during_forks() noexcept {
    return pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); }) == 0;
}

} // namespace tavipc
