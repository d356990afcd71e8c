/* file_drop - receives files into a directory.
 *
 *   file_drop receive DIRECTORY   keeps the files that arrive as DIRECTORY/drop-1, drop-2, ...
 *   file_drop send FILE           sends a file
 *
 * The library writes a file that arrives to a temporary file, and passes its path when it is complete. It
 * removes the temporary file some minutes later. To keep it, copy it, or rename it on the same file system.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <tavipc/tav_ipc.h>

static int status = EXIT_FAILURE;
static int finished;

static int copy(const char *from, const char *to) {
    char buffer[65536];
    size_t got;
    FILE *in = fopen(from, "rb"), *out = fopen(to, "wb");
    int whole = in && out;
    while (whole && (got = fread(buffer, 1, sizeof buffer, in)) > 0)
        whole = fwrite(buffer, 1, got, out) == got;
    if (in) whole = !ferror(in) && whole, fclose(in);
    if (out) whole = fclose(out) == 0 && whole;
    return whole;
}

/* The receiver: a complete file has arrived. */
static int on_file(tav_ipc_st *ipc, const char *path, void *directory) {
    static int number;
    char name[4096];
    (void)ipc;
    snprintf(name, sizeof name, "%s/drop-%d", (const char *)directory, ++number);
    const int kept = copy(path, name);
    remove(path); /* or let the library do it */
    printf("%s %s\n", kept ? "kept" : "cannot keep", name);
    return 0;
}

/* The sender: a result of 0 or more is the number of the transfer, a negative one is an error. */
static int on_done(int32_t result, void *user) {
    (void)user;
    puts(result >= 0 ? "sent" : tav_ipc_strerror(result));
    status = result >= 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    finished = 1;
    cl_event_loop_stop();
    return 0;
}

int main(int argc, char **argv) {
    tav_addr_st *drop = tav_addr_create("drop", 0, 0);
    tav_ipc_st *ipc = NULL;
    char name[TAV_IPC_NAME_SIZE];
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (argc == 3 && strcmp(argv[1], "receive") == 0) {
        ipc = tav_ipc_create_temp("drop", 1); /* 1: accepts files; with tav_ipc_create it refuses them */
        if (!ipc) return perror("cannot open the endpoint"), EXIT_FAILURE;
        tav_ipc_file_recv(ipc, on_file, argv[2]);
        puts("ready");
        cl_event_loop_run();
    } else if (argc == 3 && strcmp(argv[1], "send") == 0) {
        snprintf(name, sizeof name, "put%u", (unsigned)getpid() % 1000000);
        ipc = tav_ipc_create(name);
        if (!ipc) return perror("cannot open the endpoint"), EXIT_FAILURE;
        tav_ipc_send_file(ipc, drop, argv[2], on_done, NULL, 5); /* 5 s for each chunk's confirmation */
        if (!finished) cl_event_loop_run(); /* if the file cannot be opened, on_done has already run */
    } else {
        fprintf(stderr, "usage: %s receive DIRECTORY | send FILE\n", argv[0]);
    }
    tav_ipc_destroy(ipc);
    tav_addr_destroy(drop);
    return status;
}
