// DurationMeasurement: an amount of time in the unit it was given in
// (nanoseconds, microseconds, milliseconds, seconds, minutes, hours), as a
// statistics sample keeps it. Measurements compare by the time they stand for,
// so 1 s == 1000 ms and 500 ms < 1 s whatever their units; they print with
// their unit's symbol ("500.0 ms", "1.0 s").
//
//     auto d = zdr::DurationMeasurement::milliseconds(2.5);
//     d.converted(zdr::UnitDuration::nanoseconds);   // 2500000.0
//     d < zdr::DurationMeasurement::seconds(1);       // true
//
// A plain value type: copy it freely, use it from any thread.
#pragma once

#include <compare>
#include <ostream>
#include <string>
#include <string_view>

namespace zdr {

enum class UnitDuration { nanoseconds, microseconds, milliseconds, seconds, minutes, hours };

/// The unit's symbol: "ns", "µs", "ms", "s", "min", "hr".
std::string_view symbol(UnitDuration unit);
/// How many seconds one of `unit` is.
double secondsPer(UnitDuration unit);

class DurationMeasurement {
 public:
    constexpr DurationMeasurement(double value, UnitDuration unit) : value_(value), unit_(unit) {}

    static constexpr DurationMeasurement nanoseconds(double v) {
        return {v, UnitDuration::nanoseconds};
    }
    static constexpr DurationMeasurement microseconds(double v) {
        return {v, UnitDuration::microseconds};
    }
    static constexpr DurationMeasurement milliseconds(double v) {
        return {v, UnitDuration::milliseconds};
    }
    static constexpr DurationMeasurement seconds(double v) { return {v, UnitDuration::seconds}; }

    double value() const { return value_; }
    UnitDuration unit() const { return unit_; }

    /// The amount in `unit`.
    double converted(UnitDuration unit) const;
    /// The same time expressed in `unit`.
    DurationMeasurement convertedTo(UnitDuration unit) const { return {converted(unit), unit}; }
    double inSeconds() const { return value_ * secondsPer(unit_); }

    /// "1.0 s", "500.0 ms": the number as a floating-point value prints
    /// (shortest form, always with a fraction or an exponent), a space, the
    /// unit's symbol.
    std::string description() const;

    /// Equal when they stand for the same time (exactly, when the units match).
    friend bool operator==(const DurationMeasurement& a, const DurationMeasurement& b) {
        if (a.unit_ == b.unit_) return a.value_ == b.value_;
        return a.inSeconds() == b.inSeconds();
    }
    friend std::partial_ordering operator<=>(const DurationMeasurement& a,
                                             const DurationMeasurement& b) {
        if (a.unit_ == b.unit_) return a.value_ <=> b.value_;
        return a.inSeconds() <=> b.inSeconds();
    }
    friend std::ostream& operator<<(std::ostream& os, const DurationMeasurement& d) {
        return os << d.description();
    }

 private:
    double value_;
    UnitDuration unit_;
};

}  // namespace zdr
