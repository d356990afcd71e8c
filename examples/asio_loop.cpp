// asio_loop - an endpoint in a program whose main loop is an asio::io_context.
//
//   asio_loop        answers one request of "request_server ask TEXT", then ends
//
// The program is built where asio.hpp is found.
#include <algorithm>
#include <asio.hpp>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <tavipc/tav_ipc.h>
#include <tavipc/tavcl_loop.h>

namespace {

// Runs the event library's callbacks whenever its descriptor is readable.
void dispatch_when_ready(asio::posix::stream_descriptor &descriptor) {
    descriptor.async_wait(asio::posix::descriptor_base::wait_read, [&](const asio::error_code &error) {
        if (error) return;
        cl_event_loop_dispatch();
        dispatch_when_ready(descriptor);
    });
}

int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t, const void *data,
               uint32_t size, void *user) {
    std::string text(static_cast<const char *>(data), size);
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    tav_ipc_response(ipc, src, reqid, 0, text.data(), size);
    // On a later turn, when the response has left.
    cl_timer_start(
        0, [](void *context) { static_cast<asio::io_context *>(context)->stop(); }, user);
    return 0;
}

} // namespace

int main() {
    asio::io_context context;
    tav_ipc_st *ipc = tav_ipc_create("capitals");
    if (!ipc) return std::perror("cannot open the endpoint"), EXIT_FAILURE;
    tav_ipc_on_request(ipc, on_request, &context);
    asio::posix::stream_descriptor descriptor(context, cl_event_loop_fd());
    dispatch_when_ready(descriptor);
    std::puts("ready");
    std::fflush(stdout);
    context.run();
    descriptor.release(); // the descriptor belongs to the event library: do not close it
    tav_ipc_destroy(ipc);
    return EXIT_SUCCESS;
}
