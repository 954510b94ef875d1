#include "zdr/measurement/duration_measurement.h"

#include <gtest/gtest.h>

#include <sstream>

namespace zdr {
namespace {

using D = DurationMeasurement;

TEST(DurationMeasurement, ComparesAcrossUnits) {
    EXPECT_EQ(D::seconds(1), D::milliseconds(1000));
    EXPECT_EQ(D::milliseconds(1), D::nanoseconds(1e6));
    EXPECT_NE(D::seconds(1), D::milliseconds(999));
    EXPECT_LT(D::milliseconds(500), D::seconds(1));
    EXPECT_GT(D::nanoseconds(2e9), D::seconds(1.5));
    EXPECT_LT(D::microseconds(999), D::milliseconds(1));
    EXPECT_EQ(D(2, UnitDuration::minutes), D::seconds(120));
    EXPECT_EQ(D(1, UnitDuration::hours), D(60, UnitDuration::minutes));
}

TEST(DurationMeasurement, KeepsItsUnitAndConverts) {
    const auto d = D::milliseconds(2.5);
    EXPECT_EQ(d.unit(), UnitDuration::milliseconds);
    EXPECT_EQ(d.value(), 2.5);
    EXPECT_DOUBLE_EQ(d.converted(UnitDuration::nanoseconds), 2.5e6);
    EXPECT_DOUBLE_EQ(d.converted(UnitDuration::seconds), 0.0025);
    EXPECT_EQ(D::seconds(1).converted(UnitDuration::milliseconds), 1000.0);
    EXPECT_EQ(d.convertedTo(UnitDuration::microseconds).unit(), UnitDuration::microseconds);
}

TEST(DurationMeasurement, PrintsValueAndSymbol) {
    EXPECT_EQ(D::seconds(1).description(), "1.0 s");
    EXPECT_EQ(D::milliseconds(500).description(), "500.0 ms");
    EXPECT_EQ(D::nanoseconds(12.25).description(), "12.25 ns");
    EXPECT_EQ(D::microseconds(3).description(), "3.0 µs");
    EXPECT_EQ(D(1.5, UnitDuration::minutes).description(), "1.5 min");
    std::ostringstream os;
    os << D::seconds(0.5);
    EXPECT_EQ(os.str(), "0.5 s");
}

}  // namespace
}  // namespace zdr
