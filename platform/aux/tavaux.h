/* tavaux.h - deployment facts: what this installation is and where it stands.
 *
 * This header is the contract that any replacement of libtavaux must meet.
 *
 * The facts come from one INI file, read once per process on first use (any thread): "@/../config/agent.ini"
 * ("@" is the directory of the running executable). When it is absent, or a key is, the defaults hold; also,
 * but only for that question, when memory or descriptors are too short to read it:
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

/* The location number of this process. */
TAVAUX_API int tav_get_location(void) TAVAUX_NOEXCEPT;

/* Display name of a location number: constant, never null. */
TAVAUX_API const char *tav_location_name(int location) TAVAUX_NOEXCEPT;

/* Deployment type, a relative path component (or several) below /var that holds the socket directories;
 * null when there is none. A value that is absolute, holds ".." or is longer than 64 bytes counts as none.
 * Constant for the life of the process. */
TAVAUX_API const char *GetDeployTypeStr(void) TAVAUX_NOEXCEPT;

/* Non-zero when the agent takes its host id from the platform, and that id (0 = none). */
TAVAUX_API int IsCNAPPAgent(void) TAVAUX_NOEXCEPT;
TAVAUX_API uint32_t get_hostid(void) TAVAUX_NOEXCEPT;

/* Copies the agent-type text and its NUL into buffer (bytes behind it stay untouched). Returns its length,
 * or -1 when it is empty or does not fit. */
TAVAUX_API int GetAgentType(char *buffer, int size) TAVAUX_NOEXCEPT;

#ifdef __cplusplus
}
#endif
#endif /* TAVIPC_TAVAUX_H */
