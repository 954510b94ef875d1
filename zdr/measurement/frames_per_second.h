/* Frames per second, exponentially smoothed, callable from C and C++.
 *
 * A stream keeps one uint64_t (initially 0) and one double (its last rate)
 * and calls calculateFramesPerSecond() once per frame, feeding the result back
 * as previousFps:
 *
 *     static uint64_t last = 0;
 *     static double fps = 0.0;
 *     fps = calculateFramesPerSecond(&last, fps);
 *
 * Each call takes a host-tick stamp (zdr_useconds()), stores it in *lastTime
 * and answers previousFps * weighting + (1 - weighting) / seconds since the
 * previous stamp. The first frame (*lastTime == 0), a frame at the same tick
 * as the previous one, and a null lastTime answer 0.0. calculateFramesPerSecond
 * weighs the previous rate with 0.8999999761581421 (0.9 in single precision,
 * kept exactly so that rates match those of the macOS build).
 *
 * Threads: any thread, but one lastTime cell must be used by one thread at a
 * time.
 */
#ifndef ZDR_MEASUREMENT_FRAMES_PER_SECOND_H
#define ZDR_MEASUREMENT_FRAMES_PER_SECOND_H

#include <stdint.h>

#include "zdr/timing/host_ticks.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The weighting calculateFramesPerSecond() gives the previous rate. */
#define ZDR_FRAMES_PER_SECOND_WEIGHTING 0.8999999761581421

double calculateFramesPerSecond(uint64_t* lastTime, double previousFps);

double calculateFramesPerSecondWithWeighting(uint64_t* lastTime, double previousFps,
                                             double weighting);

#ifdef __cplusplus
}
#endif

#endif /* ZDR_MEASUREMENT_FRAMES_PER_SECOND_H */
