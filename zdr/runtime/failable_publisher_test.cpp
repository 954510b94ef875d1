#include "zdr/runtime/failable_publisher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zdr {
namespace {

struct Seen {
    std::vector<int> values;
    std::vector<std::string> ends;  // "finished" or the error
};

template <class P>
AnyCancellable watch(const std::shared_ptr<P>& p, Seen& seen) {
    return p->sink(
        [&](const FailableCompletion<std::string>& c) {
            seen.ends.push_back(c.isFinished() ? "finished" : c.error());
        },
        [&](const int& v) { seen.values.push_back(v); });
}

TEST(FailablePublisher, FailEndsWithTheErrorAndNoValue) {
    Seen seen;
    auto c = watch(Fail<int, std::string>::make("disk full"), seen);
    EXPECT_TRUE(seen.values.empty());
    EXPECT_EQ(seen.ends, std::vector<std::string>{"disk full"});
}

TEST(FailablePublisher, SetFailureTypeForwardsValuesAndFinished) {
    auto subject = PassthroughSubject<int>::make();
    Seen seen;
    auto c = watch(setFailureType<std::string>(AnyPublisher<int>(subject)), seen);
    subject->send(1);
    subject->send(2);
    subject->send(Completion::finished);
    subject->send(3);
    EXPECT_EQ(seen.values, (std::vector<int>{1, 2}));
    EXPECT_EQ(seen.ends, std::vector<std::string>{"finished"});
}

TEST(FailablePublisher, ReplaceErrorTurnsAFailureIntoOneValueThenFinished) {
    std::vector<int> values;
    int finished = 0;
    auto c =
        Fail<int, std::string>::make("gone")
            ->replaceError(-1)
            ->map([](int v) { return v * 10; })
            ->sink([&](Completion) { ++finished; }, [&](const int& v) { values.push_back(v); });
    EXPECT_EQ(values, std::vector<int>{-10});
    EXPECT_EQ(finished, 1);
}

TEST(FailablePublisher, SinkCancelledStopsDelivery) {
    auto subject = PassthroughSubject<int>::make();
    Seen seen;
    auto c = watch(setFailureType<std::string>(AnyPublisher<int>(subject)), seen);
    subject->send(1);
    c.cancel();
    subject->send(2);
    subject->send(Completion::finished);
    EXPECT_EQ(seen.values, std::vector<int>{1});
    EXPECT_TRUE(seen.ends.empty());
}

TEST(FailablePublisher, ResultHoldsEitherSide) {
    auto ok = Result<int, std::string>::success(4);
    auto bad = Result<int, std::string>::failure("no");
    ASSERT_TRUE(ok.isSuccess());
    EXPECT_EQ(ok.value(), 4);
    ASSERT_FALSE(bad.isSuccess());
    EXPECT_EQ(bad.error(), "no");
    static_assert(std::is_same_v<PublisherFor<int, Never>, Publisher<int>>);
    static_assert(std::is_same_v<CompletionFor<Never>, Completion>);
}

}  // namespace
}  // namespace zdr
