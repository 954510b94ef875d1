// StatisticsRecorder: where timing primitives send the durations they measure.
//
// The timing layer sits below measurement (runtime <- timing <- measurement),
// yet a one-shot publisher (replay_once.h) records how long its work took into
// the statistics collector of zdr/measurement. Rather than link timing against
// measurement, which would close a cycle, timing defines this small interface
// and zdr::Statistics (zdr/measurement/statistics.h) implements it, so a caller
// passes Statistics::shared() wherever a recorder is asked for.
//
// Threads: recordNanoseconds() is called on the main queue by the timing
// primitives; implementations may accept it from any thread.
#pragma once

#include <string_view>

namespace zdr {

class StatisticsRecorder {
 public:
    virtual ~StatisticsRecorder() = default;

    /// Records one sample of `nanoseconds` in the series `name`.
    virtual void recordNanoseconds(std::string_view name, double nanoseconds) = 0;
};

}  // namespace zdr
