/* tav_agentid.h - the agent's identity: configuration directory, manager address, agent id, VM id, and the
 * check of the calling process against the signed allow-list.
 *
 * The agent id is an unsigned 32-bit number, 0 = none, stored in the file machineid of the configuration
 * directory. CreateAgentId, GetAgentIdFromFileWhileClone and StoreAgentIdByRuvo hold a lock that all
 * processes of the host share (the named semaphore /tav_agentid_mutexlock). They wait at most 6 seconds
 * for it. If the file of the semaphore in /dev/shm cannot be used, they remove it. If that is not allowed, or
 * the wait is over, they write a log line and return 0 (CreateAgentId the id of an earlier call). The other
 * functions take no lock.
 */
#ifndef TAVIPC_TAV_AGENTID_H
#define TAVIPC_TAV_AGENTID_H

#include <stdbool.h>
#include <stdint.h>

#include "tav_api.h"

/* Element of a list of MAC addresses; from malloc. */
typedef struct _Mac_Node {
    unsigned char mac[6];
    struct _Mac_Node *next; /* null at the end */
} _Mac_Node;

/* --- exported under type-encoded names ---------------------------------------------------------- */

/* Writes the configuration directory, cut to size bytes and NUL-terminated, into out: the first of
 * $TAV_INSTALL_ROOT/config, "@/../config" ("@" is the directory of the executable) and the directory "config"
 * beside the first "bin" in the path of "@" that exists. If none exists, writes "@/../config". Writes nothing
 * if out is null or size below 1. */
TAVIPC_API void GetTAVConfPath(char *out, int size) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z14GetTAVConfPathPci");

/* Returns 1 if the first three of mac's six bytes are the prefix of a virtual adapter in the library's table,
 * otherwise 0 (0 for null). */
TAVIPC_API int IsExcludeAdapter(unsigned char *mac) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z16IsExcludeAdapterPh");

/* Releases a list. Ignores null. */
TAVIPC_API void FreeMacList(_Mac_Node *head) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z11FreeMacListP9_Mac_Node");

/* Determines, stores and returns the agent id; 0 if there is none. Threads may call it at the same time. May
 * sleep and probe the route to the manager (up to about 18 seconds, plus the time of the resolver). Ends the
 * process with exit status 1 if no manager address is configured and no id is stored, and by abort() if the
 * manager is on the loopback address and the VM id is unknown. Both write a level-1 log line first. */
TAVIPC_API unsigned int CreateAgentId(void) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z13CreateAgentIdv");

/* Returns the VM id that the guest tool reports, 0 on failure. With use_global, returns g_vmid if it is
 * known, and otherwise stores the new id there. Without, always runs the tool and leaves g_vmid unchanged. */
TAVIPC_API uint64_t GetVMID(bool use_global) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z7GetVMIDb");

/* Makes an agent id from the VM id, stores it at machineid_path and returns it, even if the file could not be
 * written (a log line says so). Returns 0 if the path is null or the file is longer than 4 bytes (it holds an
 * id made from a MAC). Calls abort() if the VM id is unknown. */
TAVIPC_API unsigned int CreateAgentIdByVMID(const char *machineid_path) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z19CreateAgentIdByVMIDPKc");

/* Returns the id stored in a machineid file, 0 if path is null or there is none. */
TAVIPC_API unsigned int ReadAgentid(const char *path) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z11ReadAgentidPKc");

/* Returns the stored id if the marker clone_mac exists in the configuration directory. A stored id of 0
 * removes the marker. Returns 0 if there is no marker or the lock cannot be taken. */
TAVIPC_API unsigned int GetAgentIdFromFileWhileClone(void) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z28GetAgentIdFromFileWhileClonev");

/* Stores id and returns it, even if the file could not be written (a log line says so). Returns 0 if the lock
 * cannot be taken. */
TAVIPC_API unsigned int StoreAgentIdByRuvo(unsigned int id) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z18StoreAgentIdByRuvoj");

/* --- exported under plain names ------------------------------------------------------------------ */

TAVIPC_BEGIN_DECLS

/* Stores the manager's address (dotted IPv4, at most ip_size bytes with the NUL) in ip and its IPC port (host
 * order, default 8083) in *port, from server.ini and server_port.ini. Returns 0 on success; 6 if ip or port
 * is null or ip_size below 1; 14 if the address cannot be resolved; otherwise the errno of the failure, which
 * may be 0 if a key is absent. */
TAVIPC_API int GetMgrAddr(char *ip, int ip_size, unsigned short *port) TAVIPC_NOEXCEPT;

/* The VM id, 0 = not known yet. */
TAVIPC_API extern uint64_t g_vmid;

/* Return GetVMID(true) and GetVMID(false). */
TAVIPC_API uint64_t tav_get_vmidid(void) TAVIPC_NOEXCEPT;
TAVIPC_API uint64_t tav_get_vmidid_from_G2HProxy(void) TAVIPC_NOEXCEPT;

/* Returns 0 if the name of the running executable is in the signed allow-list "@/../config/linux.json", whose
 * signature is "@/../config/linux_sign.json"; otherwise -1, with the reason in the log (level 1). Nothing is
 * cached. */
TAVIPC_API int32_t c_get_process(void) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_AGENTID_H */
