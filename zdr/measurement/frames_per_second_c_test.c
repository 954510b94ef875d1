/* Compiled as C: the frame-rate functions and their header are usable from C. */
#include <stddef.h>

#include "zdr/measurement/frames_per_second.h"

double zdr_c_test_frames_per_second(uint64_t* lastTime, double previousFps) {
    return calculateFramesPerSecond(lastTime, previousFps);
}

double zdr_c_test_frames_per_second_null(void) {
    return calculateFramesPerSecondWithWeighting(NULL, 60.0, 0.5);
}

double zdr_c_test_weighting(void) { return ZDR_FRAMES_PER_SECOND_WEIGHTING; }
