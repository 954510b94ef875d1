/* Compiled as C: proves the tick functions and their global are usable from C. */
#include "zdr/timing/host_ticks.h"

double zdr_c_test_timescale_after_first_stamp(void) {
    uint64_t stamp = zdr_useconds();
    (void)stamp;
    return ZDR_USECONDS_TIMESCALE;
}

uint64_t zdr_c_test_difference(uint64_t later, uint64_t earlier) {
    return zdr_time_difference_in_ms(later, earlier);
}
