#include "zdr/runtime/detail/timer_thread.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

namespace zdr::detail {
namespace {

using namespace std::chrono_literals;

TEST(TimerThreadTest, CallbacksThatThrowAnythingLeaveTheThreadRunning) {
    auto& timers = TimerThread::shared();
    timers.schedule(dispatchNow(), [] { throw 42; });
    timers.schedule(dispatchNow(), [] { throw std::runtime_error("timer"); });
    std::promise<void> later;
    timers.schedule(dispatchTimeAfter(0.01), [&] { later.set_value(); });
    EXPECT_EQ(later.get_future().wait_for(10s), std::future_status::ready);
}

}  // namespace
}  // namespace zdr::detail
