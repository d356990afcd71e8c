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

int main(void) {
    tav_addr_st *alpha = tav_addr_create2("alpha", 2, 7, ADDR_FLAG_COMPRESS_OK);
    ipc_req_manager_st manager;
    void *found = NULL, *envelope = NULL;
    uint32_t size = 0;
    int32_t code = 0;
    char text[1000] = "text";
    error_output_set_level(-1);

    CHECK(sizeof *alpha == 16 && sizeof(tav_ipc_hdr_st) == 60);
    CHECK(strcmp(tav_addr_get_name(alpha), "alpha") == 0 && tav_location_name(1) != NULL);
    CHECK(tav_ipc_create("c") == NULL && tav_ipc_send(NULL, alpha, 0, NULL, 0) == IPC_ERR_SENDTO);
    CHECK(strcmp(tav_ipc_strerror(1), "Unkown error") == 0 && get_real_priority(0) == 4);
    tav_ipc_probe(NULL, alpha, keep_code, &code);
    CHECK(cl_event_loop_run() == 0 && code == IPC_ERR_SENDTO);
    CHECK(ipc_req_manager_init(&manager, free, NULL, NULL) == 0);
    CHECK(ipc_req_manager_insert(&manager, 5, malloc(1), INT64_MAX) == 0);
    CHECK(ipc_req_manager_find(&manager, 5, &found) == 0 && found != NULL);
    ipc_req_manager_uninit(&manager);
    CHECK(tav_compress(text, sizeof text, &envelope, &size, 0) == TAV_COMPRESS_OK && size < sizeof text);
    CHECK(ReadAgentid(NULL) == 0 && c_get_process() == -1);
    tav_addr_destroy(alpha);
    free(envelope);
    return failures ? EXIT_FAILURE : EXIT_SUCCESS;
}
