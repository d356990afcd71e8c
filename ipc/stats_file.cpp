#include "ipc/stats_file.h"

#include <cstdlib>
#include <utility>

namespace tavipc {

constinit uint64_t lost_counts[TAV_IPC_STATS_MAX] = {};

bool open_account(Account &account, const AccountLabel &, const char *) {
    account.record = static_cast<tav_ipc_stats_record_st *>(std::calloc(1, sizeof *account.record));
    account.own_memory = true;
    return false;
}

void close_account(Account &account) {
    if (account.own_memory) std::free(account.record);
    account = {};
}

uint32_t account_number(const Account &) { return UINT32_MAX; }

bool remove_stale_stats(const char *) { return false; }

} // namespace tavipc
