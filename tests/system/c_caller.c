/* A caller in plain C11: every public header, and a function of each family under its exported name. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tavipc/ipc_queue.h"
#include "tavipc/ipc_req_manager.h"
#include "tavipc/tav_agentid.h"
#include "tavipc/tav_compress.h"
#include "tavipc/tav_ipc.h"

#include "tavaux.h"
#include "tavbase.h"
#include "tavcl_ev.h"

static int failures;
#define CHECK(condition)                                                                                     \
    ((condition) ? (void)0 : (void)(++failures, fprintf(stderr, "FAILED: %s\n", #condition)))

static int keep_code(int32_t code, void *kept) { return *(int32_t *)kept = code, 0; }
static void count_turn(void *count) { ++*(int *)count; }

int main(void) {
    tav_addr_st *alpha = tav_addr_create2("alpha", 2, 7, ADDR_FLAG_COMPRESS_OK), *copy = tav_addr_dup(alpha);
    tav_ipc_hdr_st header;
    ipc_req_manager_st manager;
    void *found = NULL, *envelope = NULL, *plain = NULL;
    uint32_t envelope_size = 0, plain_size = 0;
    int32_t code = 0;
    int turns = 0;
    char text[1000];
    memset(text, 'x', sizeof text);
    memset(&header, 0, sizeof header);
    error_output_set_level(-1);

    CHECK(sizeof *alpha == 16 && sizeof header == 60 && tav_ipc_hdr_magic(&header) == 0x19D699A5u);
    CHECK(strcmp(tav_addr_get_name(alpha), "alpha") == 0 && tav_addr_cmp(alpha, copy) == 0);
    CHECK(tav_ipc_create("c") == NULL && tav_ipc_send(NULL, alpha, 0, NULL, 0) == IPC_ERR_SENDTO);
    CHECK(strcmp(tav_ipc_strerror(1), "Unkown error") == 0 && get_real_priority(0) == 4);
    tav_ipc_probe(NULL, alpha, keep_code, &code);
    CHECK(cl_timer_start(1, count_turn, &turns) != 0 && cl_event_loop_run() == 0);
    CHECK(turns == 1 && code == IPC_ERR_SENDTO);
    CHECK(ipc_req_manager_init(&manager, free, NULL, NULL) == 0);
    CHECK(ipc_req_manager_insert(&manager, 5, malloc(1), INT64_MAX) == 0);
    CHECK(ipc_req_manager_find(&manager, 5, &found) == 0 && found != NULL);
    ipc_req_manager_uninit(&manager);
    CHECK(tav_compress(text, sizeof text, &envelope, &envelope_size, 0) == TAV_COMPRESS_OK);
    CHECK(tav_uncompress(envelope, envelope_size, &plain, &plain_size, 0) == TAV_COMPRESS_OK);
    CHECK(plain_size == sizeof text && memcmp(plain, text, sizeof text) == 0);
    CHECK(ReadAgentid(NULL) == 0 && c_get_process() == -1);
    CHECK(orlask_crc32("123", 3) == 2286445522u && tav_location_name(1) != NULL);
    tav_addr_destroy(alpha), tav_addr_destroy(copy);
    free(envelope), free(plain);
    return failures ? EXIT_FAILURE : EXIT_SUCCESS;
}
