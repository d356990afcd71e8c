/* tavaux.h - deployment facts: the kind and the location of this installation.
 *
 * This header is the contract that any replacement of libtavaux must meet.
 *
 * The facts come from one INI file, "@/../config/agent.ini", where "@" is the directory of the running
 * executable. It is read once per process, at the first use on any thread. A missing file or key leaves the
 * defaults below. When memory or descriptors are too short to read the file, the defaults are returned, and
 * the next call tries again:
 *
 *   [agent]      location = 1         deploy_type =        agent_type = linux
 *                cnapp = 0            hostid = 0
 *   [locations]  NUMBER = NAME        (default: the number as text)
 */
#ifndef TAVIPC_TAVAUX_H
#define TAVIPC_TAVAUX_H

#include <stdint.h>

#ifdef __cplusplus
#define TAVAUX_NOEXCEPT noexcept
extern "C" {
#else
#define TAVAUX_NOEXCEPT
#endif
#define TAVAUX_API __attribute__((visibility("default")))

/* Returns the location number of this process. */
TAVAUX_API int tav_get_location(void) TAVAUX_NOEXCEPT;

/* Returns the display name of a location number: constant, never null. */
TAVAUX_API const char *tav_location_name(int location) TAVAUX_NOEXCEPT;

/* Returns the deployment type, or null without one: one or more components of a relative path, below /var, to
 * the socket directories. A value that is absolute, contains ".." or is longer than 64 bytes counts as none.
 * Constant for the life of the process. */
TAVAUX_API const char *GetDeployTypeStr(void) TAVAUX_NOEXCEPT;

/* IsCNAPPAgent returns non-zero when the agent takes its host id from the platform; get_hostid returns that
 * id, 0 = none. */
TAVAUX_API int IsCNAPPAgent(void) TAVAUX_NOEXCEPT;
TAVAUX_API uint32_t get_hostid(void) TAVAUX_NOEXCEPT;

/* Copies the agent-type text and its NUL into buffer and leaves the bytes after it unchanged. Returns the
 * length of the text, or -1 when it is empty, does not fit into size bytes, or buffer is null. */
TAVAUX_API int GetAgentType(char *buffer, int size) TAVAUX_NOEXCEPT;

#ifdef __cplusplus
}
#endif
#endif /* TAVIPC_TAVAUX_H */
