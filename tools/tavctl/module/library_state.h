// What the tool needs to know of the library and the library has no call for: whether messages have left, how
// far a file transfer is, and which received files are unfinished. Each function here rests on how the
// library works inside; a call of the library replaces it when there is one.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include <sys/types.h>

#include "tavipc/tav_ipc.h"

namespace tavctl {

// Waits until messages that nobody confirms have left for the destination. Call watch_departures before they
// are sent. Throws Problem when one was dropped, and when the wait was interrupted.
void watch_departures();
void wait_for_departures(const tav_addr_st &destination);

// The position in a file that the library reads from: the bytes before it have been read, but for up to two
// chunks of 64,000 bytes not yet confirmed.
class FilePosition {
  public:
    // begin starts the transfer of the open file.
    FilePosition(int file, const std::function<void()> &begin);
    // Empty when the library has closed the file, or never opened it.
    std::optional<uint64_t> get() const;

  private:
    int library_fd_;
    dev_t device_;
    ino_t inode_;
};

// Removes the files that this process is receiving and that are not complete; its end would leave them
// behind. Returns how many there were.
unsigned drop_unfinished_files();

} // namespace tavctl
