/* publish_subscribe - a publisher of messages and any number of subscribers.
 *
 *   publish_subscribe publish                sends a number to all subscribers, ten times a second
 *   publish_subscribe subscribe NAME COUNT   prints COUNT of them; NAME is its endpoint
 *
 * The library has no topics. A subscriber sends a message to subscribe, and the publisher keeps its address.
 * That message is confirmed (tav_ipc_send2), because it must arrive; the published numbers are not. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tavipc/tav_ipc.h>

enum { SUBSCRIBE = 1, UNSUBSCRIBE, NEWS }; /* command codes, chosen by the application */
enum { MOST_SUBSCRIBERS = 16 };

static tav_ipc_st *ipc;
static tav_addr_st *publisher;
static tav_addr_st subscribers[MOST_SUBSCRIBERS];
static int subscriber_count;
static int wanted; /* messages that the subscriber still waits for */

/* --- the publisher */

static int on_subscription(tav_ipc_st *self, const tav_addr_st *src, uint32_t cmd, const void *data,
                           uint32_t size, void *user) {
    int i = 0;
    (void)self, (void)data, (void)size, (void)user;
    while (i < subscriber_count && tav_addr_cmp(&subscribers[i], src) != 0) ++i;
    if (cmd == SUBSCRIBE && i == subscriber_count && i < MOST_SUBSCRIBERS)
        subscribers[subscriber_count++] = *src;
    if (cmd == UNSUBSCRIBE && i < subscriber_count) subscribers[i] = subscribers[--subscriber_count];
    printf("%s %.10s\n", cmd == SUBSCRIBE ? "welcome" : "goodbye", tav_addr_get_name(src));
    return 0;
}

static void publish(void *user) {
    static int number;
    char text[32];
    int i, length = snprintf(text, sizeof text, "number %d", ++number);
    for (i = 0; i < subscriber_count; ++i) tav_ipc_send(ipc, &subscribers[i], NEWS, text, (uint32_t)length);
    cl_timer_start(100, publish, user); /* a timer runs once, so this one starts itself again */
}

/* --- a subscriber */

static int on_left(int32_t code, void *user) {
    (void)code, (void)user;
    cl_event_loop_stop();
    return 0;
}

static int on_news(tav_ipc_st *self, const tav_addr_st *src, uint32_t cmd, const void *data, uint32_t size,
                   void *user) {
    (void)src, (void)user;
    if (cmd != NEWS || wanted == 0) return 0;
    printf("%.*s\n", (int)size, (const char *)data);
    if (--wanted == 0) tav_ipc_send2(self, publisher, UNSUBSCRIBE, NULL, 0, on_left, NULL, 5);
    return 0;
}

static int on_subscribed(int32_t code, void *user) {
    (void)user;
    if (code == 0) return 0;
    printf("no publisher: %s\n", tav_ipc_strerror(code));
    cl_event_loop_stop();
    return 0;
}

int main(int argc, char **argv) {
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (argc == 2 && strcmp(argv[1], "publish") == 0) {
        ipc = tav_ipc_create("news");
        tav_ipc_msg_recv(ipc, on_subscription, NULL);
        if (ipc) publish(NULL);
    } else if (argc == 4 && strcmp(argv[1], "subscribe") == 0) {
        wanted = atoi(argv[3]);
        publisher = tav_addr_create("news", 0, 0);
        ipc = tav_ipc_create(argv[2]);
        tav_ipc_msg_recv(ipc, on_news, NULL);
        if (ipc) tav_ipc_send2(ipc, publisher, SUBSCRIBE, NULL, 0, on_subscribed, NULL, 5);
    } else {
        fprintf(stderr, "usage: %s publish | subscribe NAME COUNT\n", argv[0]);
        return EXIT_FAILURE;
    }
    if (!ipc) return perror("cannot open the endpoint"), EXIT_FAILURE;
    puts("ready");
    cl_event_loop_run();
    tav_ipc_destroy(ipc);
    tav_addr_destroy(publisher);
    return wanted == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
