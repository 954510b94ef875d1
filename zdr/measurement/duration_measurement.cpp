#include "zdr/measurement/duration_measurement.h"

#include <array>
#include <charconv>

namespace zdr {

std::string_view symbol(UnitDuration unit) {
    switch (unit) {
        case UnitDuration::nanoseconds:
            return "ns";
        case UnitDuration::microseconds:
            return "µs";
        case UnitDuration::milliseconds:
            return "ms";
        case UnitDuration::seconds:
            return "s";
        case UnitDuration::minutes:
            return "min";
        case UnitDuration::hours:
            return "hr";
    }
    return "s";
}

double secondsPer(UnitDuration unit) {
    switch (unit) {
        case UnitDuration::nanoseconds:
            return 1e-9;
        case UnitDuration::microseconds:
            return 1e-6;
        case UnitDuration::milliseconds:
            return 1e-3;
        case UnitDuration::seconds:
            return 1.0;
        case UnitDuration::minutes:
            return 60.0;
        case UnitDuration::hours:
            return 3600.0;
    }
    return 1.0;
}

double DurationMeasurement::converted(UnitDuration unit) const {
    if (unit == unit_) return value_;
    // Through the larger factor first, so that whole conversions such as
    // 1 s -> 1000 ms stay exact.
    const double from = secondsPer(unit_);
    const double to = secondsPer(unit);
    return from >= to ? value_ * (from / to) : value_ / (to / from);
}

std::string DurationMeasurement::description() const {
    std::array<char, 64> buffer{};
    auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value_);
    std::string number(buffer.data(), ec == std::errc() ? end : buffer.data());
    if (number.find_first_of(".eninf") == std::string::npos) number += ".0";
    return number + " " + std::string(symbol(unit_));
}

}  // namespace zdr
