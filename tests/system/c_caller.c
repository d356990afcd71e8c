/* A caller in plain C11: every public header, and something of every family, under its exported name. */
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

static void check(int holds, const char *what) {
    if (holds) return;
    fprintf(stderr, "FAILED: %s\n", what);
    ++failures;
}
#define CHECK(condition) check((condition) != 0, #condition)

static void addresses_and_header(void) {
    tav_ipc_hdr_st header;
    tav_addr_st *alpha = tav_addr_create2("alpha", 2, 7, ADDR_FLAG_COMPRESS_OK), *copy = tav_addr_dup(alpha);
    CHECK(sizeof *alpha == 16 && sizeof header == 60);
    CHECK(tav_addr_cmp(alpha, copy) == 0);
    CHECK(strcmp(tav_addr_get_name(alpha), "alpha") == 0 && tav_addr_get_loc(alpha) == 2 &&
          tav_addr_get_hostid(alpha) == 7);
    copy->hostid = 8;
    CHECK(tav_addr_cmp(alpha, copy) == -1);
    CHECK(tav_addr_create("ten_letter", 0, 0) == NULL);
    tav_addr_destroy(alpha);
    tav_addr_destroy(copy);

    memset(&header, 0, sizeof header);
    CHECK(tav_ipc_hdr_magic(&header) == 0x19D699A5u);
    strcpy(header.src.name, "alpha");
    strcpy(header.dest.name, "beta");
    header.reqid = 1;
    header.cmd = 2;
    header.size = 3;
    CHECK(tav_ipc_hdr_magic(&header) == 0xBD7EBA4Fu);
}

static int keep_code(int32_t code, void *kept) {
    *(int32_t *)kept = code;
    return 0;
}

static void endpoints_and_results(void) {
    tav_addr_st nobody;
    int32_t code = 0;
    void (*const volatile emit_file)(tav_ipc_st *, const char *) = tav_ipc_emit_file;
    memset(&nobody, 0, sizeof nobody);
    CHECK(tav_ipc_create("c") == NULL); /* there is no allow-list beside this executable */
    CHECK(c_get_process() == -1);
    CHECK(tav_ipc_send(NULL, &nobody, 0, NULL, 0) == IPC_ERR_SENDTO);
    CHECK(tav_ipc_msg_recv(NULL, NULL, NULL) == -1);
    CHECK(strcmp(tav_ipc_strerror(1), "Unkown error") == 0);
    CHECK(load_ipc_proxy_conf("/nonexistent") == 0 && get_ipc_proxy_conf()->eagain_max_retry_times == 10);
    CHECK(ipc_rand_by_time() >= 0);
    CHECK(emit_file != NULL);
    tav_ipc_probe(NULL, &nobody, keep_code, &code);
    CHECK(cl_event_loop_run() == 0 && code == IPC_ERR_SENDTO);
    CHECK(tav_ipc_get_random_file_id(1) >= 0);
}

static void queue_and_requests(void) {
    ipc_queue_msg_st *message = create_ipc_queue_msg(100);
    ipc_req_manager_st manager;
    void *found = NULL;
    CHECK(message != NULL);
    memset(message, 0, sizeof *message);
    free_ipc_queue_msg(message);
    CHECK(get_real_priority(0) == 4 && get_real_priority(9) == 9);

    CHECK(ipc_req_manager_init(&manager, free, NULL, NULL) == 0);
    CHECK(ipc_req_manager_insert(&manager, 5, malloc(1), INT64_MAX) == 0);
    CHECK(ipc_req_manager_find(&manager, 5, &found) == 0 && found != NULL);
    CHECK(ipc_req_manager_count(&manager) == 1);
    ipc_req_manager_uninit(&manager);
}

static void compression(void) {
    char text[1000];
    void *envelope = NULL, *plain = NULL;
    uint32_t envelope_size = 0, plain_size = 0;
    memset(text, 'x', sizeof text);
    CHECK(tav_compress(text, sizeof text, &envelope, &envelope_size, 0) == TAV_COMPRESS_OK);
    CHECK(envelope_size < sizeof text);
    CHECK(tav_uncompress(envelope, envelope_size, &plain, &plain_size, 0) == TAV_COMPRESS_OK);
    CHECK(plain_size == sizeof text && memcmp(plain, text, sizeof text) == 0);
    CHECK(_zlib_compressBound(1000) >= 1000);
    free(envelope);
    free(plain);
}

static void identity(void) {
    /* Those that would end the process or run the guest tool need only be there. */
    unsigned int (*const volatile ids[])(void) = {CreateAgentId, GetAgentIdFromFileWhileClone};
    unsigned int (*const volatile store)(unsigned int) = StoreAgentIdByRuvo;
    unsigned int (*const volatile by_vmid)(const char *) = CreateAgentIdByVMID;
    uint64_t (*const volatile vmid)(bool) = GetVMID;
    char directory[512] = "";
    unsigned char virtual_mac[6] = {0x00, 0x50, 0x56, 1, 2, 3};
    unsigned short port = 0;
    CHECK(ids[0] != NULL && ids[1] != NULL && store != NULL && by_vmid != NULL && vmid != NULL);
    GetTAVConfPath(directory, sizeof directory);
    CHECK(strstr(directory, "config") != NULL);
    CHECK(IsExcludeAdapter(virtual_mac) == 1 && IsExcludeAdapter(NULL) == 0);
    CHECK(ReadAgentid(NULL) == 0);
    FreeMacList(NULL);
    CHECK(GetMgrAddr(NULL, 0, &port) == 6);
    CHECK(g_vmid == 0);
}

static void count_turn(void *count) { ++*(int *)count; }

static void platform_libraries(void) {
    int turns = 0;
    CHECK(orlask_crc32("123", 3) == 2286445522u);
    CHECK(tav_location_name(1) != NULL);
    CHECK(cl_timer_start(1, count_turn, &turns) != 0);
    CHECK(cl_event_loop_run() == 0 && turns == 1);
}

int main(void) {
    error_output_set_level(-1);
    addresses_and_header();
    endpoints_and_results();
    queue_and_requests();
    compression();
    identity();
    platform_libraries();
    return failures ? EXIT_FAILURE : EXIT_SUCCESS;
}
