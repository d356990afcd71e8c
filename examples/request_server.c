/* request_server - a server that responds to requests, and its client.
 *
 *   request_server serve       responds to each text with the same text in capital letters
 *   request_server ask TEXT    sends a request and prints the response
 *
 * A request completes exactly once: with the response, or with an error code, for example after the time-out.
 */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <tavipc/tav_ipc.h>

enum { CAPITALS = 1, LONGEST_TEXT = 1000, TIMEOUT_S = 3 };

static int status = EXIT_FAILURE;

/* The server: the response goes to the source of the request, with the id of the request. A server may keep
 * both and respond later. */
static int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
                      uint32_t size, void *user) {
    char text[LONGEST_TEXT];
    uint32_t i;
    (void)user;
    if (cmd != CAPITALS || size > sizeof text) {
        tav_ipc_response(ipc, src, reqid, IPC_ERR_CMD_NOT_FOUND, NULL, 0);
        return 0;
    }
    for (i = 0; i < size; ++i) text[i] = (char)toupper(((const unsigned char *)data)[i]);
    tav_ipc_response(ipc, src, reqid, 0, text, size);
    return 0;
}

/* The client: code is set by the library (0: a response arrived), cmd by the server. */
static int on_answer(int32_t code, uint32_t cmd, const void *data, uint32_t len, void *user) {
    (void)user;
    if (code != 0 || cmd != 0)
        printf("no answer: %s\n", tav_ipc_strerror(code ? code : (int)cmd));
    else
        printf("answer: %.*s\n", (int)len, (const char *)data);
    status = code != 0 || cmd != 0;
    cl_event_loop_stop();
    return 0;
}

int main(int argc, char **argv) {
    tav_addr_st *server = tav_addr_create("capitals", 0, 0);
    tav_ipc_st *ipc = NULL;
    char name[TAV_IPC_NAME_SIZE];
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (argc == 2 && strcmp(argv[1], "serve") == 0) {
        ipc = tav_ipc_create("capitals");
        tav_ipc_on_request(ipc, on_request, NULL);
        if (ipc) puts("ready");
    } else if (argc == 3 && strcmp(argv[1], "ask") == 0) {
        snprintf(name, sizeof name, "ask%u",
                 (unsigned)getpid() % 1000000); /* each process needs a name of its own */
        ipc = tav_ipc_create(name);
        if (ipc)
            tav_ipc_make_request(ipc, server, CAPITALS, argv[2], (uint32_t)strlen(argv[2]), on_answer, NULL,
                                 TIMEOUT_S);
    } else {
        fprintf(stderr, "usage: %s serve | ask TEXT\n", argv[0]);
        return EXIT_FAILURE;
    }
    if (!ipc) return perror("cannot open the endpoint"), EXIT_FAILURE;
    cl_event_loop_run();
    tav_ipc_destroy(ipc);
    tav_addr_destroy(server);
    return status;
}
