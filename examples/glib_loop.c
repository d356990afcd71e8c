/* glib_loop - an endpoint in a program whose main loop is GLib's.
 *
 *   glib_loop        answers one request of "request_server ask TEXT", then ends
 *
 * The program is built where pkg-config finds glib-2.0. */
#include <glib-unix.h>
#include <stdio.h>
#include <stdlib.h>

#include <tavipc/tav_ipc.h>
#include <tavipc/tavcl_loop.h>

/* GLib calls this when the descriptor of the event library is readable. */
static gboolean on_ready(gint descriptor, GIOCondition condition, gpointer user) {
    (void)descriptor, (void)condition, (void)user;
    cl_event_loop_dispatch();
    return G_SOURCE_CONTINUE;
}

static void finish(void *loop) { g_main_loop_quit(loop); }

static int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
                      uint32_t size, void *loop) {
    gchar *text = g_ascii_strup(data, (gssize)size);
    (void)cmd;
    tav_ipc_response(ipc, src, reqid, 0, text, size);
    g_free(text);
    cl_timer_start(0, finish, loop); /* on a later turn, when the response has left */
    return 0;
}

int main(void) {
    GMainLoop *loop = g_main_loop_new(NULL, FALSE);
    tav_ipc_st *ipc = tav_ipc_create("capitals");
    guint source;
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (!ipc) return perror("cannot open the endpoint"), EXIT_FAILURE;
    tav_ipc_on_request(ipc, on_request, loop);
    source = g_unix_fd_add(cl_event_loop_fd(), G_IO_IN, on_ready, NULL);
    puts("ready");
    g_main_loop_run(loop);
    g_source_remove(source);
    g_main_loop_unref(loop);
    tav_ipc_destroy(ipc);
    return EXIT_SUCCESS;
}
