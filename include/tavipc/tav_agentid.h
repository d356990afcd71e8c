/* tav_agentid.h - the agent's identity: configuration directory, manager address, agent id, VM id, and the
 * check of the calling process against the signed allow-list.
 *
 * The agent id is an unsigned 32-bit number, 0 = none, kept in the file machineid of the configuration
 * directory. CreateAgentId, GetAgentIdFromFileWhileClone and StoreAgentIdByRuvo hold a lock that all
 * processes of the host share (named semaphore /tav_agentid_mutexlock), for which they wait at most 6
 * seconds; the other functions take none.
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
 * $TAV_INSTALL_ROOT/config, "@/../config" ("@" is the directory of the executable) and the config directory
 * beside the first "bin" in the path of "@" that exists, else "@/../config" all the same. Nothing is
 * written when out is null or size below 1. */
TAVIPC_API void GetTAVConfPath(char *out, int size) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z14GetTAVConfPathPci");

/* 1 when the first three of mac's six bytes are a virtual adapter's prefix in the library's table, else 0
 * (0 for null). */
TAVIPC_API int IsExcludeAdapter(unsigned char *mac) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z16IsExcludeAdapterPh");

/* Releases a list; null is ignored. */
TAVIPC_API void FreeMacList(_Mac_Node *head) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z11FreeMacListP9_Mac_Node");

/* Determines, stores and returns the agent id; 0 when there is none. May sleep and probe the route to the
 * manager (up to about 18 seconds, and as long as the resolver takes). Ends the process: with exit status 1
 * when no manager address is configured and no id is stored; by abort() when the manager is on the loopback
 * address and the VM id cannot be had. Both write a level-1 log line first. */
TAVIPC_API unsigned int CreateAgentId(void) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z13CreateAgentIdv");

/* The VM id that the guest tool reports, 0 on failure. use_global: return g_vmid when it is known, and keep
 * a new id there; else the tool always runs and g_vmid is left alone. */
TAVIPC_API uint64_t GetVMID(bool use_global) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z7GetVMIDb");

/* Agent id made from the VM id and stored at machineid_path. 0 when the path is null or the file is longer
 * than 4 bytes (it holds an id made from a MAC). Calls abort() when no VM id can be had. */
TAVIPC_API unsigned int CreateAgentIdByVMID(const char *machineid_path) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z19CreateAgentIdByVMIDPKc");

/* The id stored in a machineid file, 0 when path is null or there is none. */
TAVIPC_API unsigned int ReadAgentid(const char *path) TAVIPC_NOEXCEPT TAVIPC_ENCODED("_Z11ReadAgentidPKc");

/* When the marker clone_mac lies in the configuration directory: the stored id. A stored id of 0 removes the
 * marker. 0 also when there is no marker or the lock cannot be had. */
TAVIPC_API unsigned int GetAgentIdFromFileWhileClone(void) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z28GetAgentIdFromFileWhileClonev");

/* Stores id and returns it (also when the file could not be written: the log tells); 0 when the lock cannot
 * be had. */
TAVIPC_API unsigned int StoreAgentIdByRuvo(unsigned int id) TAVIPC_NOEXCEPT
    TAVIPC_ENCODED("_Z18StoreAgentIdByRuvoj");

/* --- exported under plain names ------------------------------------------------------------------ */

TAVIPC_BEGIN_DECLS

/* The manager's address (dotted IPv4, at most ip_size bytes with the NUL) and IPC port (host order, default
 * 8083), from server.ini and server_port.ini. 0 on success; 6 when ip or port is null or ip_size below 1;
 * 14 when the address cannot be resolved; else the errno of what failed, which may be 0 when a key is
 * absent. */
TAVIPC_API int GetMgrAddr(char *ip, int ip_size, unsigned short *port) TAVIPC_NOEXCEPT;

/* The VM id once obtained, 0 = not known. */
TAVIPC_API extern uint64_t g_vmid;

/* GetVMID(true) and GetVMID(false). */
TAVIPC_API uint64_t tav_get_vmidid(void) TAVIPC_NOEXCEPT;
TAVIPC_API uint64_t tav_get_vmidid_from_G2HProxy(void) TAVIPC_NOEXCEPT;

/* 0 when the running executable's name is in the signed allow-list "@/../config/linux.json", whose signature
 * is "@/../config/linux_sign.json"; else -1, with the reason in the log (level 1). Nothing is cached. */
TAVIPC_API int32_t c_get_process(void) TAVIPC_NOEXCEPT;

TAVIPC_END_DECLS

#endif /* TAVIPC_TAV_AGENTID_H */
