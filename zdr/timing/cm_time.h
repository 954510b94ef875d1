// CMTime and MediaClock: rational media time stamps and the clocks that tell
// them, as capture pipelines use to relate frames from different sources.
//
// CMTime is a value (value / timescale seconds) with validity flags and an
// epoch. Comparison follows the media-time rules: epochs first, then the
// rational values compared exactly (so 1/2 equals 2/4); invalid times are
// equal to each other and later than everything, then positive infinity, then
// indefinite; negative infinity is earlier than everything. std::hash hashes
// all four fields, with the value and timescale reduced to lowest terms first
// so that times that compare equal hash equal.
//
// MediaClock is the clock interface: its current time as a CMTime and in
// seconds, a printable description, and identity equality and hashing (two
// handles are the same clock only if they share the object). hostTimeClock()
// is the process-wide clock on CLOCK_MONOTONIC in nanoseconds (timescale 1e9).
//
// Threads: CMTime is a value type. Every MediaClock member may be called from
// any thread; hostTimeClock() answers the same object on every call.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zdr {

enum CMTimeFlags : std::uint32_t {
    kCMTimeFlags_Valid = 1u << 0,
    kCMTimeFlags_HasBeenRounded = 1u << 1,
    kCMTimeFlags_PositiveInfinity = 1u << 2,
    kCMTimeFlags_NegativeInfinity = 1u << 3,
    kCMTimeFlags_Indefinite = 1u << 4,
};

struct CMTime {
    std::int64_t value = 0;
    std::int32_t timescale = 0;
    std::uint32_t flags = 0;  // CMTimeFlags; 0 is an invalid time
    std::int64_t epoch = 0;

    /// A valid time of `value` / `timescale` seconds.
    static CMTime make(std::int64_t value, std::int32_t timescale, std::int64_t epoch = 0) {
        return CMTime{value, timescale, kCMTimeFlags_Valid, epoch};
    }
    static CMTime invalid() { return CMTime{}; }
    static CMTime zero() { return make(0, 1); }
    static CMTime positiveInfinity() {
        return CMTime{0, 0, kCMTimeFlags_Valid | kCMTimeFlags_PositiveInfinity, 0};
    }
    static CMTime negativeInfinity() {
        return CMTime{0, 0, kCMTimeFlags_Valid | kCMTimeFlags_NegativeInfinity, 0};
    }
    static CMTime indefinite() {
        return CMTime{0, 0, kCMTimeFlags_Valid | kCMTimeFlags_Indefinite, 0};
    }

    bool isValid() const { return (flags & kCMTimeFlags_Valid) != 0; }
    bool isNumeric() const;

    /// The time in seconds: NaN when invalid or indefinite, ±infinity for the
    /// infinities.
    double seconds() const;

    /// "CMTime(value: 5, timescale: 1000, flags: CMTimeFlags(rawValue: 1), epoch: 0)".
    std::string description() const;

    friend std::strong_ordering operator<=>(const CMTime& a, const CMTime& b);
    friend bool operator==(const CMTime& a, const CMTime& b) { return (a <=> b) == 0; }
};

/// A media clock: something that tells the current media time.
class MediaClock {
 public:
    virtual ~MediaClock() = default;

    /// The clock's current time.
    virtual CMTime time() const = 0;

    double seconds() const { return time().seconds(); }

    /// "CMClock: " followed by the current time's description.
    virtual std::string description() const;

    /// Identity hash (the same for every handle to this object).
    std::size_t identityHash() const { return std::hash<const void*>()(this); }
};

/// Identity equality of two optional clocks: both null, or the same object.
inline bool sameClock(const std::shared_ptr<MediaClock>& a, const std::shared_ptr<MediaClock>& b) {
    return a.get() == b.get();
}

/// The host time clock: CLOCK_MONOTONIC, timescale 1e9.
std::shared_ptr<MediaClock> hostTimeClock();

}  // namespace zdr

template <>
struct std::hash<zdr::CMTime> {
    std::size_t operator()(const zdr::CMTime& t) const noexcept;
};
