/* Compiled as C: the pid search is callable from C with its status constants. */
#include <stddef.h>

#include "zdr/system/process_pids.h"

int zdr_c_test_find_pids(const char* name, int32_t* pids, unsigned int capacity,
                         unsigned int* count, int* error) {
    return getAllPIDsForProcessName(name, pids, capacity, count, error);
}

int zdr_c_test_missing_array_status(void) {
    unsigned int count = 7;
    return getAllPIDsForProcessName("init", NULL, 4, &count, NULL) == kZDRGetPIDsBadArgument &&
           count == 7;
}
