#include "ipc/ipc_process.h"

#include "ipc/endpoint.h"
#include "ipc/ipc_conf.h"
#include "ipc/ipc_file.h"
#include "ipc/msg_trace.h"
#include "ipc/send.h"
#include "ipc/socket_directory.h"

namespace tavipc {

void reset_process_state() {
    reset_host_id();
    reset_ipc_conf();
    reset_msg_trace();
    reset_received_files();
    reset_file_ids();
    reset_sending();
    reset_socket_directory();
}

} // namespace tavipc
