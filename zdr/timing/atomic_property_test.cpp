#include "zdr/timing/atomic_property.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zdr {
namespace {

TEST(AtomicProperty, LabelIsQuoteNameRandomNumberAndTypeName) {
    AtomicProperty<int> property;
    const std::string prefix =
        "\xE2\x80\x9C"
        "AtomicProperty";  // U+201C in UTF-8
    const std::string& label = property.label();
    ASSERT_EQ(label.rfind(prefix, 0), 0u) << label;
    ASSERT_GT(label.size(), prefix.size() + 3);
    EXPECT_EQ(label.substr(label.size() - 3), "int");
    const std::string digits = label.substr(prefix.size(), label.size() - prefix.size() - 3);
    ASSERT_FALSE(digits.empty());
    EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << label;
    EXPECT_LE(std::stol(digits), 100000);
}

TEST(AtomicProperty, PerformAtomicOnAbsentValueNeverCallsTheOperation) {
    AtomicProperty<int> property;
    bool called = false;
    property.performAtomic([&](int&) { called = true; });
    EXPECT_FALSE(called);
    EXPECT_FALSE(property.wrappedValue().has_value());
}

TEST(AtomicProperty, SetIsSeenByAnImmediateGetOnAnotherThread) {
    AtomicProperty<std::string> property;
    for (int i = 0; i < 200; ++i) {
        property.setWrappedValue(std::to_string(i));
        std::optional<std::string> seen;
        std::thread reader([&] { seen = property.wrappedValue(); });
        reader.join();
        ASSERT_EQ(seen, std::to_string(i));
    }
    property.setWrappedValue(std::nullopt);
    EXPECT_FALSE(property.wrappedValue().has_value());
}

TEST(AtomicProperty, PerformAtomicIsAnAtomicReadModifyWrite) {
    AtomicProperty<long> property;
    property.setWrappedValue(0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) property.performAtomic([](long& v) { ++v; });
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(property.wrappedValue(), 2000);
}

TEST(AtomicProperty, ThrowingOperationLeavesValueUnchanged) {
    AtomicProperty<std::vector<int>> property;
    property.setWrappedValue(std::vector<int>{1, 2});
    EXPECT_THROW(property.performAtomic([](std::vector<int>& v) {
        v.push_back(3);
        throw std::runtime_error("rollback");
    }),
                 std::runtime_error);
    EXPECT_EQ(property.wrappedValue(), (std::vector<int>{1, 2}));
    property.performAtomic([](std::vector<int>& v) { v.push_back(3); });
    EXPECT_EQ(property.wrappedValue(), (std::vector<int>{1, 2, 3}));
}

TEST(AtomicProperty, DestructionWaitsForPendingSets) {
    // A setter still queued when the property goes away would write freed
    // memory; AddressSanitizer reports it if the destructor does not wait.
    for (int round = 0; round < 50; ++round) {
        auto property = std::make_unique<AtomicProperty<std::string>>();
        for (int i = 0; i < 20; ++i) property->setWrappedValue(std::string(64, 'a' + i % 26));
        property.reset();
    }
}

}  // namespace
}  // namespace zdr
