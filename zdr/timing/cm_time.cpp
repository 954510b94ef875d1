#include "zdr/timing/cm_time.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>

#include "zdr/runtime/clock.h"

namespace zdr {

namespace {

// Ranks of the non-numeric kinds: negative infinity sorts first, numeric
// times next, then indefinite, positive infinity and invalid last.
int kindRank(const CMTime& t) {
    if (!t.isValid()) return 4;
    if (t.flags & kCMTimeFlags_NegativeInfinity) return 0;
    if (t.flags & kCMTimeFlags_PositiveInfinity) return 3;
    if (t.flags & kCMTimeFlags_Indefinite) return 2;
    if (t.timescale <= 0) return 4;  // a valid flag with no timescale is no time at all
    return 1;
}

std::size_t combine(std::size_t seed, std::size_t v) {
    return seed ^ (v + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

}  // namespace

bool CMTime::isNumeric() const { return kindRank(*this) == 1; }

double CMTime::seconds() const {
    switch (kindRank(*this)) {
        case 0:
            return -std::numeric_limits<double>::infinity();
        case 1:
            return static_cast<double>(value) / static_cast<double>(timescale);
        case 3:
            return std::numeric_limits<double>::infinity();
        default:
            return std::numeric_limits<double>::quiet_NaN();
    }
}

std::string CMTime::description() const {
    char buffer[160];
    std::snprintf(
        buffer, sizeof buffer,
        "CMTime(value: %lld, timescale: %d, flags: CMTimeFlags(rawValue: %u), epoch: %lld)",
        static_cast<long long>(value), timescale, flags, static_cast<long long>(epoch));
    return buffer;
}

std::strong_ordering operator<=>(const CMTime& a, const CMTime& b) {
    const int ra = kindRank(a);
    const int rb = kindRank(b);
    if (ra != rb || ra != 1) return ra <=> rb;
    if (a.epoch != b.epoch) return a.epoch <=> b.epoch;
    // Exact rational comparison: the cross products fit in 128 bits.
    __extension__ using Wide = __int128;
    const Wide left = static_cast<Wide>(a.value) * b.timescale;
    const Wide right = static_cast<Wide>(b.value) * a.timescale;
    return left <=> right;
}

std::string MediaClock::description() const { return "CMClock: " + time().description(); }

namespace {

class HostTimeClock final : public MediaClock {
 public:
    CMTime time() const override {
        return CMTime::make(static_cast<std::int64_t>(currentHostTime()), 1000000000);
    }
};

}  // namespace

std::shared_ptr<MediaClock> hostTimeClock() {
    static const std::shared_ptr<MediaClock> clock = std::make_shared<HostTimeClock>();
    return clock;
}

}  // namespace zdr

std::size_t std::hash<zdr::CMTime>::operator()(const zdr::CMTime& t) const noexcept {
    // Non-numeric times of one kind compare equal whatever their fields, so
    // only the kind is hashed for them.
    if (!t.isNumeric())
        return zdr::combine(0x5bd1e995u, static_cast<std::size_t>(zdr::kindRank(t)));
    std::int64_t value = t.value;
    std::int64_t timescale = t.timescale;
    const std::int64_t g = std::gcd(value, timescale);
    if (g > 1) {
        value /= g;
        timescale /= g;
    }
    const std::uint32_t flags =
        t.flags & ~static_cast<std::uint32_t>(zdr::kCMTimeFlags_HasBeenRounded);
    std::size_t h = std::hash<std::int64_t>()(value);
    h = zdr::combine(h, std::hash<std::int64_t>()(timescale));
    h = zdr::combine(h, std::hash<std::uint32_t>()(flags));
    h = zdr::combine(h, std::hash<std::int64_t>()(t.epoch));
    return h;
}
