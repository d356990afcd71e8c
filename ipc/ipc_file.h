// Whole files. ipc_file_send.cpp draws the ids of transfers and sends files in confirmed chunks;
// ipc_file_start.cpp does the same for transfers with a name, progress and cancellation; ipc_file_receive.cpp
// writes the chunks into temporary files and removes these after a while.
#pragma once

#include <cstdint>
#include <string_view>

#include "common/owned.h"
#include "ipc/wire.h"
#include "tavipc/tav_ipc_file_ext.h"

namespace tavipc {

// --- sending

// A file that is read chunk by chunk.
struct FileSource {
    FilePtr stream;      // null after the end of the file
    uint32_t length = 0; // bytes of `chunk` that were read
    unsigned char chunk[kFragmentPayload];

    // Null and errno if it cannot be opened.
    static FilePtr open(const char *path);
    // Reads the next chunk; it stays empty after the end of the file.
    void read_chunk();
    // The chunk is about to be sent. If it is short, takes what was appended to the file since it was read;
    // if it is still short, it is the last one.
    void complete_chunk();
};

// A file id (0 or positive) that no receiver can know, or the negative code that the transfer ends with. Give
// it back with end_file_id when the transfer has ended.
int32_t take_file_id(uint32_t hostid);
void end_file_id(int32_t id);

// --- announcements: payloads of probes whose command is the file id

struct FileAnnouncement {
    char mark[4];  // kFileMark
    uint32_t kind; // kAnnounces or kWithdraws; a receiver ignores others
    uint64_t size; // bytes of the file; UINT64_MAX: not known
    // The name follows, without a terminator.
};
static_assert(sizeof(FileAnnouncement) == 16);
inline constexpr char kFileMark[4] = {'F', 'I', 'L', 'E'};
inline constexpr uint32_t kAnnounces = 1; // the chunks follow
inline constexpr uint32_t kWithdraws = 2; // the sender has cancelled the transfer; no name

// Whether a file may have the name that a peer or a caller chose.
bool is_announceable(std::string_view name);

// A probe for an endpoint that accepts files, or not. Returns the code of its acknowledgement.
int32_t receive_announcement(const tav_addr_st &src, uint32_t file_id, const void *payload, uint32_t size,
                             bool accepts_files);

// --- receiving

// An endpoint that accepts files was opened on this thread, perhaps because the previous loop was released
// with the timer of the sweep. Starts that timer again if received files are kept.
void resume_file_sweep();

// For tests: both bring the component back to its state in a new process, on the thread that used it.
// The first one removes all received files.
void reset_received_files();
void reset_file_ids();

} // namespace tavipc
