#include "status.h"

#include <cerrno>

#include "tavcl_ev.h"

namespace tavcl_ev {

int status_of(int error) noexcept {
    switch (error) {
    case 0:
        return CL_EV_OK;
    case ECONNREFUSED: // a stale socket file, or a peer that died
    case ENOTCONN:
    case ECONNRESET:
    case ENOENT:
    case ENOTDIR:
        return CL_EV_NO_PEER;
    case EMSGSIZE:
        return CL_EV_TOO_BIG;
    case EAGAIN:
        return CL_EV_WOULD_BLOCK;
    case ECANCELED:
        return CL_EV_CANCELLED;
    default:
        return CL_EV_IO;
    }
}

const char *status_text(int status) noexcept {
    switch (status) {
    case CL_EV_OK:
        return "success";
    case CL_EV_IO:
        return "input/output error";
    case CL_EV_NO_PEER:
        return "no peer at the address";
    case CL_EV_TOO_BIG:
        return "datagram too big";
    case CL_EV_WOULD_BLOCK:
        return "operation would block";
    case CL_EV_CANCELLED:
        return "operation cancelled";
    default:
        return "unknown status";
    }
}

} // namespace tavcl_ev
