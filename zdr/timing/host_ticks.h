/* Host-tick stamps and millisecond differences, callable from C and C++.
 *
 * zdr_useconds() answers the host clock (CLOCK_MONOTONIC) in ticks and, on its
 * first call, sets ZDR_USECONDS_TIMESCALE to the tick frequency (ticks per
 * second). Despite the name the unit is ticks, not microseconds;
 * zdr_time_difference_in_ms() converts a difference of two such stamps to whole
 * milliseconds. Pass the later stamp first: an earlier stamp greater than the
 * later one wraps around and yields a huge value.
 *
 * Threads: both functions may be called from any thread. ZDR_USECONDS_TIMESCALE
 * is 0 until the first call of either function and never changes afterwards
 * unless the host writes it.
 */
#ifndef ZDR_TIMING_HOST_TICKS_H
#define ZDR_TIMING_HOST_TICKS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Host clock frequency in ticks per second; 0 until first set. */
extern double ZDR_USECONDS_TIMESCALE;

/** The current host time in ticks. */
uint64_t zdr_useconds(void);

/** (later - earlier) in whole milliseconds, truncated. */
uint64_t zdr_time_difference_in_ms(uint64_t later, uint64_t earlier);

#ifdef __cplusplus
}
#endif

#endif /* ZDR_TIMING_HOST_TICKS_H */
