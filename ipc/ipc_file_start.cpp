// Sends files of tav_ipc_file_ext.h, stop and wait. One FileTransfer each, in a list of its endpoint: it
// first announces the file if that has a name, then sends chunk after chunk, each in an exchange with an id,
// and the empty chunk at the end.
//
// While user code runs, an exchange of the transfer is outstanding. Whatever that code does, the exchange
// ends once and the transfer with it. The one exception is the sink of a log line of the send itself:
// `sending`.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/keep_errno.h"
#include "common/relaxed.h"
#include "ipc/exchanges.h"
#include "ipc/ipc_file.h"

namespace tavipc {

struct FileTransfer : FileSource {
    tav_ipc_st *ipc = nullptr;
    tav_addr_st dest{};
    uint32_t timeout_ms = 0;
    bool waits_for_peer = false;
    bool announced = false;  // the announcement was sent
    bool announcing = false; // and is the outstanding message
    bool ended = false;      // the empty chunk was sent
    bool sending = false;    // a message is being sent
    bool cancelled = false;  // meanwhile
    uint64_t id = 0;         // the file id in its low 32 bits
    uint64_t exchange = 0;   // outstanding; 0: none
    uint32_t on_its_way = 0; // bytes of the outstanding chunk
    uint64_t confirmed = 0;  // bytes
    uint64_t size = TAV_IPC_FILE_SIZE_UNKNOWN;
    tav_ipc_file_progress_cb progress = nullptr;
    tav_ipc_file_done_cb done = nullptr;
    void *user = nullptr;
    FileTransfer *next = nullptr;
    FileTransfer **link = nullptr; // what points at this one in the endpoint's list; null: not in it
};

namespace {

using Owner = std::unique_ptr<FileTransfer>;

uint64_t transfer_id(int32_t file_id) {
    static constinit Relaxed<uint64_t> last = 0;
    return ++last << 32 | static_cast<uint32_t>(file_id);
}
uint32_t file_id_of(uint64_t id) { return static_cast<uint32_t>(id); }

void put_into_list(FileTransfer &transfer) {
    transfer.link = &transfer.ipc->transfers;
    transfer.next = std::exchange(transfer.ipc->transfers, &transfer);
    if (transfer.next) transfer.next->link = &transfer.next;
}

void take_out_of_list(FileTransfer &transfer) {
    if (!transfer.link) return;
    *transfer.link = transfer.next;
    if (transfer.next) transfer.next->link = transfer.link;
    transfer.link = nullptr;
}

// Ends the transfer, if the callback has not run. It is not found any more.
void report_end(FileTransfer &transfer, int32_t code) {
    take_out_of_list(transfer);
    const auto done = std::exchange(transfer.done, nullptr);
    if (done) done(transfer.id, code, transfer.user);
}

void release(const Owner &transfer) {
    take_out_of_list(*transfer);
    end_file_id(static_cast<int32_t>(file_id_of(transfer->id)));
}

void end(FileTransfer *ended, int32_t code) {
    const Owner transfer(ended);
    transfer->stream.reset();
    release(transfer);
    report_end(*transfer, code);
}

void on_answer(uint64_t, int32_t code, uint32_t, const void *, uint32_t, void *user);

// Starts the exchange of the next message. False, with errno, if that cannot be; or if the sink of a log line
// cancelled the transfer meanwhile.
bool send_message(FileTransfer &transfer, uint16_t flags, const void *data, uint32_t size) {
    const Exchange message{&transfer.dest,
                           file_id_of(transfer.id),
                           data,
                           size,
                           static_cast<uint16_t>(flags | IPC_FLAG_NEED_ACK),
                           0};
    transfer.sending = true;
    transfer.exchange = ipc_start_exchange(
        transfer.ipc, {message, transfer.timeout_ms, transfer.waits_for_peer}, on_answer, &transfer);
    transfer.sending = false;
    if (!transfer.cancelled) return transfer.exchange != 0;
    if (transfer.exchange != 0) tav_ipc_exchange_cancel(transfer.ipc, transfer.exchange);
    return errno = ECANCELED, false;
}

bool send_announcement(FileTransfer &transfer, std::string_view name) {
    unsigned char payload[sizeof(FileAnnouncement) + TAV_IPC_FILE_NAME_MAX];
    FileAnnouncement head{{}, kAnnounces, transfer.size};
    std::memcpy(head.mark, kFileMark, sizeof kFileMark);
    std::memcpy(payload, &head, sizeof head);
    std::memcpy(payload + sizeof head, name.data(), name.size());
    transfer.announced = transfer.announcing = true;
    return send_message(transfer, IPC_FLAG_PROBE, payload, static_cast<uint32_t>(sizeof head + name.size()));
}

bool send_chunk(FileTransfer &transfer) {
    transfer.complete_chunk();
    transfer.ended = transfer.length == 0;
    transfer.on_its_way = transfer.length;
    if (!send_message(transfer, IPC_FLAG_FILE, transfer.chunk, transfer.length)) return false;
    if (!transfer.ended) transfer.read_chunk(); // the one that was sent is copied
    return true;
}

int32_t code_of(int error) {
    return error == ESHUTDOWN ? IPC_ERR_CLOSED : error == ENOMEM ? IPC_ERR_NOMEM : IPC_ERR_SENDTO;
}

// The outstanding message was answered, or its exchange ended otherwise.
void on_answer(uint64_t, int32_t code, uint32_t, const void *, uint32_t, void *user) {
    auto *transfer = static_cast<FileTransfer *>(user);
    transfer->exchange = 0;
    if (transfer->cancelled) return; // the frame that sends ends it
    const bool announcement = std::exchange(transfer->announcing, false);
    if (announcement && code == IPC_ERR_TIMEOUT) code = IPC_OK; // by a peer with a handler of its own
    if (code != IPC_OK || transfer->ended) return end(transfer, code);
    if (!announcement) transfer->confirmed += transfer->on_its_way;
    if (!send_chunk(*transfer)) return end(transfer, code_of(errno));
    if (!announcement && transfer->progress) // last: it may end the transfer
        transfer->progress(transfer->id, transfer->confirmed, std::max(transfer->size, transfer->confirmed),
                           transfer->user);
}

// Reports to the peer that no more chunks come, without waiting for an answer.
void withdraw(tav_ipc_st *ipc, const tav_addr_st &dest, uint32_t file_id) {
    FileAnnouncement head{{}, kWithdraws, TAV_IPC_FILE_SIZE_UNKNOWN};
    std::memcpy(head.mark, kFileMark, sizeof kFileMark);
    uint32_t reqid = 0;
    (void)tav_ipc_send_with_flags(ipc, &dest, file_id, &head, sizeof head, IPC_FLAG_PROBE, &reqid);
}

// Null, with errno, if a transfer of the file cannot be made.
Owner open_transfer(tav_ipc_st *ipc, const tav_addr_st &dest, const char *path) {
    FilePtr stream = FileSource::open(path);
    if (!stream) return nullptr;
    Owner transfer(new (std::nothrow) FileTransfer);
    if (!transfer) return stream.reset(), errno = ENOMEM, nullptr;
    struct stat status {};
    if (::fstat(::fileno(stream.get()), &status) == 0 && S_ISREG(status.st_mode))
        transfer->size = static_cast<uint64_t>(status.st_size);
    const int32_t file_id = take_file_id(dest.hostid);
    if (file_id < 0) return stream.reset(), errno = file_id == IPC_ERR_NOMEM ? ENOMEM : EAGAIN, nullptr;
    transfer->id = transfer_id(file_id);
    transfer->ipc = ipc;
    transfer->dest = dest;
    transfer->stream = std::move(stream);
    transfer->read_chunk();
    return transfer;
}

FileTransfer *find_transfer(const tav_ipc_st *ipc, uint64_t id) {
    FileTransfer *transfer = ipc ? ipc->transfers : nullptr;
    while (transfer && transfer->id != id) transfer = transfer->next;
    return transfer;
}

} // namespace
} // namespace tavipc

using namespace tavipc;

uint64_t tav_ipc_file_start(tav_ipc_st *ipc, const tav_addr_st *dest, const char *path, const char *name,
                            uint32_t timeout_ms, uint32_t flags, tav_ipc_file_progress_cb progress,
                            tav_ipc_file_done_cb done, void *user) noexcept {
    UseGuard guard(ipc, "tav_ipc_file_start");
    const bool valid = ipc && dest && path && (!name || is_announceable(name)) &&
                       (flags & ~TAV_IPC_FILE_WAIT_FOR_PEER) == 0 &&
                       is_file_name(name_text(read_address(dest)));
    if (!valid) return errno = EINVAL, 0;
    Owner transfer = open_transfer(ipc, read_address(dest), path);
    if (!transfer) return 0;
    transfer->timeout_ms = timeout_ms;
    transfer->waits_for_peer = flags & TAV_IPC_FILE_WAIT_FOR_PEER;
    transfer->progress = progress;
    transfer->done = done;
    transfer->user = user;
    if (!(name ? send_announcement(*transfer, name) : send_chunk(*transfer))) {
        const KeepErrno keep;
        return release(transfer), transfer.reset(), 0;
    }
    put_into_list(*transfer);
    return transfer.release()->id;
}

int tav_ipc_file_cancel(tav_ipc_st *ipc, uint64_t id) noexcept {
    UseGuard guard(ipc, "tav_ipc_file_cancel");
    FileTransfer *transfer = find_transfer(ipc, id);
    if (!transfer) return errno = ENOENT, -1;
    const bool announced = transfer->announced;
    const tav_addr_st dest = transfer->dest;
    if (transfer->sending) {
        transfer->cancelled = true;
        report_end(*transfer, IPC_ERR_CANCELLED);
    } else {
        tav_ipc_exchange_cancel(ipc, transfer->exchange);
    }
    if (announced && !ipc->closed) withdraw(ipc, dest, file_id_of(id));
    return 0;
}
