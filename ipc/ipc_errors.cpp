// Texts of the result codes.
#include "tavipc/tav_ipc.h"

extern "C" const char *tav_ipc_strerror(int code) noexcept {
    switch (code) {
    case IPC_OK:
        return "Success";
    case IPC_ERR_SENDTO:
        return "Failed to sendto sys call";
    case IPC_ERR_TIMEOUT:
        return "Request timeout";
    case IPC_ERR_CLOSED:
        return "Handler closed";
    case IPC_ERR_OPEN_FILE:
        return "Can not open file";
    case IPC_ERR_NOMEM:
        return "Out of memory";
    case IPC_ERR_FILE_ID:
        return "File id conflict with others";
    case IPC_ERR_IO:
        return "Input output error";
    case IPC_ERR_FILE_CLOSED:
        return "File closed";
    case IPC_ERR_NOT_SUPPORTED:
        return "Function not supported";
    case IPC_ERR_PROTO:
        return "Proto error";
    case IPC_ERR_LOOP:
        return "Data looping transmit";
    case IPC_ERR_NOT_READY:
        return "Connection not ready";
    case IPC_ERR_CMD_NOT_FOUND:
        return "Command not found";
    case IPC_ERR_CONFIG_NOT_FOUND:
        return "Config not found";
    case IPC_ERR_OBJECT_NOT_FOUND:
        return "Object not found";
    case IPC_ERR_INVALID_PARAM:
        return "Invalid parameters";
    default:
        return "Unkown error";
    }
}
