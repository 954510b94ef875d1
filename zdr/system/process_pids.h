/* getAllPIDsForProcessName: the process ids of every running process whose
 * kernel command name (the 15-byte `comm` of /proc) is `name`. Callable from C
 * and C++.
 *
 * Statuses:
 *   0  at least one process found; *count holds how many
 *  -1  no process has that name (*count is 0)
 *  -2  a required argument is missing (name, pids, count) or capacity is 0
 *  -3  the process table could not be read (/proc could not be opened);
 *      *error holds the errno
 *  -4  no memory to read the table; *error is ENOMEM (12)
 *  -5  more matches than `capacity`; the first `capacity` pids are in `pids`
 *
 * The comparison is bounded to 16 bytes, the kernel's command-name buffer, so
 * a name of 16 bytes or more never matches: the kernel keeps at most 15. Pass
 * the truncated name to find a program whose name is longer. Pid 0 is never
 * reported. A process that exits while the table is read is skipped.
 *
 * Threads: any; the function keeps no state.
 */
#ifndef ZDR_SYSTEM_PROCESS_PIDS_H
#define ZDR_SYSTEM_PROCESS_PIDS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    kZDRGetPIDsFound = 0,
    kZDRGetPIDsNoneFound = -1,
    kZDRGetPIDsBadArgument = -2,
    kZDRGetPIDsTableUnreadable = -3,
    kZDRGetPIDsNoMemory = -4,
    kZDRGetPIDsArrayFull = -5
};

/* `error` may be NULL. */
int getAllPIDsForProcessName(const char* name, int32_t* pids, unsigned int capacity,
                             unsigned int* count, int* error);

#ifdef __cplusplus
}
#endif

#endif /* ZDR_SYSTEM_PROCESS_PIDS_H */
