// One file that is being received, or was: its temporary file on disk, and what is known about it.
//
// Once the file has some size, space is reserved on disk ahead of the chunks, because appending then takes a
// fifth less time. The reserve is never more than what has arrived, so that a peer cannot fill the disk with
// the beginnings of files. Closing returns it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

#include "common/facts.h"
#include "common/owned.h"
#include "common/unique_fd.h"
#include "tavipc/tav_ipc_file_ext.h"

namespace tavipc {

class ReceivedFile {
  public:
    static constexpr size_t kPathSize = sizeof kReceivedFile;

    // Makes the temporary file. False with errno set on failure.
    bool create();
    bool is_open() const { return static_cast<bool>(fd_); }
    const char *path() const { return path_; }
    uint64_t received() const { return received_; } // bytes
    // False when not all of it could be written, or the file would be larger than the process may write.
    bool append(const void *data, uint32_t size);
    void close();
    // Removes the temporary file, except in a child process that has only inherited the record.
    void remove() const;

    tav_addr_st src;
    time_t last_seen_s; // of the wall clock: creation, then the last chunk with data
    bool dropped = false;
    uint64_t announced = TAV_IPC_FILE_SIZE_UNKNOWN;
    MallocPtr<char> name; // announced; null: none

  private:
    void reserve(uint64_t limit, uint32_t next);
    void release_reserve();

    UniqueFd fd_; // empty: complete or dropped
    char path_[kPathSize];
    pid_t owner_;
    uint64_t received_ = 0;
    uint64_t reserved_ = 0; // up to this offset; UINT64_MAX: that has failed
};

} // namespace tavipc
