// The file of counters: the records of this process's endpoints and destinations, mapped, for other programs.
//
// The first endpoint of a process makes the file in its socket directory. The last one removes it, or exit
// does. The owner holds a lock (flock) on it, which the kernel releases with the process: a file whose lock
// is free is stale. If the file is full or cannot be made, a record is in private memory; callers see no
// difference. tav_ipc_stats.h describes the layout.
//
// All endpoints of the process share the file, so taking and freeing a record locks a mutex. Counting does
// not: one thread writes a record's values. Space for a record is allocated before the record is used, so a
// full file system never turns a write to the mapping into SIGBUS. A forked child gets private copies of the
// parent's records, at the same addresses, and makes a file of its own with its first endpoint.
#pragma once

#include <cstdint>

#include "tavipc/tav_ipc_stats.h"

namespace tavipc {

// The counters of an endpoint or of a destination. Zeroed memory is an account that was never open.
struct Account {
    uint64_t *values;     // where to count; after the account is closed, memory that is never read
    uint32_t outstanding; // datagrams accepted that have neither left nor been dropped
    bool is_open;
    bool own_memory; // the record is not in the file
};

// What a new record says about its owner.
struct AccountLabel {
    tav_ipc_stats_kind kind;
    uint32_t owner; // number of the endpoint's record; not used for an endpoint
    int32_t location;
    const char *name;
};

// Opens a closed account. For an endpoint path is where the file is made if there is none yet; null: nowhere.
// Returns false when memory is short; the account stays closed then.
[[nodiscard]] bool open_account(Account &account, const AccountLabel &label, const char *path);
// Closes an account, if it is open. With the last endpoint's the file goes.
void close_account(Account &account);
// The number of the account's record; UINT32_MAX when it is not in the file of this process.
uint32_t account_number(const Account &account);

// Removes the file of counters at path if its process has ended.
bool remove_stale_stats(const char *path);

// For tests: endpoints make no file from now on.
void keep_stats_in_memory(bool on);

} // namespace tavipc
