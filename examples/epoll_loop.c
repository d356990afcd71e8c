/* epoll_loop - an endpoint in a program whose main loop is epoll.
 *
 *   epoll_loop       answers one request of "request_server ask TEXT", then ends
 *
 * The event library has one descriptor for all that it waits for. When that is readable, a call of
 * cl_event_loop_dispatch runs the callbacks that are due. */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>

#include <tavipc/tav_ipc.h>
#include <tavipc/tavcl_loop.h>

enum { LONGEST_TEXT = 1000 };

static int done;

static void finish(void *user) {
    (void)user;
    done = 1;
}

static int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
                      uint32_t size, void *user) {
    char text[LONGEST_TEXT];
    uint32_t i;
    (void)cmd, (void)user;
    for (i = 0; i < size && i < sizeof text; ++i) text[i] = (char)toupper(((const unsigned char *)data)[i]);
    tav_ipc_response(ipc, src, reqid, 0, text, i);
    cl_timer_start(0, finish, NULL); /* on a later turn, when the response has left */
    return 0;
}

int main(void) {
    struct epoll_event event = {.events = EPOLLIN};
    const int epoll = epoll_create1(EPOLL_CLOEXEC), descriptor = cl_event_loop_fd();
    tav_ipc_st *ipc = tav_ipc_create("capitals");
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (!ipc) return perror("cannot open the endpoint"), EXIT_FAILURE;
    tav_ipc_on_request(ipc, on_request, NULL);
    event.data.fd = descriptor;
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) return perror("epoll"), EXIT_FAILURE;
    puts("ready");
    while (!done) /* a program adds its own descriptors to the set, and looks at event.data.fd */
        if (epoll_wait(epoll, &event, 1, -1) == 1 && event.data.fd == descriptor) cl_event_loop_dispatch();
    tav_ipc_destroy(ipc);
    return EXIT_SUCCESS;
}
