/* file_drop - a place where files can be dropped.
 *
 *   file_drop receive DIRECTORY   keeps each file that comes as DIRECTORY/drop-1, drop-2, ...
 *   file_drop send FILE           sends one
 *
 * The library writes what arrives into a temporary file and gives its path when it is complete. It removes
 * that file some minutes later: who wants to keep it copies it (or renames it, on the same file system). */
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

/* The receiver: a whole file has come. */
static int on_file(tav_ipc_st *ipc, const char *path, void *directory) {
    static int number;
    char name[4096];
    (void)ipc;
    snprintf(name, sizeof name, "%s/drop-%d", (const char *)directory, ++number);
    printf("%s %s\n", copy(path, name) ? "kept" : "cannot keep", name);
    remove(path); /* or leave that to the library */
    return 0;
}

/* The sender: 0 or more is the transfer's number, everything below says why it failed. */
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
        ipc = tav_ipc_create_temp("drop", 1); /* 1: files are welcome; tav_ipc_create refuses them */
        tav_ipc_file_recv(ipc, on_file, argv[2]);
        if (ipc) puts("ready");
        if (ipc) cl_event_loop_run();
    } else if (argc == 3 && strcmp(argv[1], "send") == 0) {
        snprintf(name, sizeof name, "put%u", (unsigned)getpid() % 1000000);
        ipc = tav_ipc_create(name);
        if (ipc)
            tav_ipc_send_file(ipc, drop, argv[2], on_done, NULL, 5); /* 5 s for each chunk's confirmation */
        if (ipc && !finished) cl_event_loop_run(); /* a file that cannot be opened fails inside the call */
    } else {
        fprintf(stderr, "usage: %s receive DIRECTORY | send FILE\n", argv[0]);
    }
    tav_ipc_destroy(ipc);
    tav_addr_destroy(drop);
    return status;
}
