#include "zdr/timing/normal_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace zdr {
namespace {

TEST(NormalLock, NestedOperationsOnOneThreadDoNotDeadlock) {
    NormalLock lock;
    int depth = 0;
    lock.write([&] {
        ++depth;
        lock.syncWrite([&] {
            ++depth;
            depth += lock.read([&] { return lock.read([] { return 1; }); });
            EXPECT_EQ(lock.readAndReturn([] { return std::make_shared<int>(3); }) != nullptr, true);
        });
    });
    EXPECT_EQ(depth, 3);
}

TEST(NormalLock, ExcludesOtherThreads) {
    NormalLock lock;
    long counter = 0;  // plain: a missing exclusion shows as a lost update or a TSan report
    std::atomic<int> inside{0};
    std::atomic<int> violations{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i) {
                auto work = [&] {
                    if (++inside != 1) ++violations;
                    ++counter;
                    --inside;
                };
                if ((i + t) % 2) {
                    lock.read(work);
                } else {
                    lock.syncWrite(work);
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(counter, 20000);
}

TEST(NormalLock, ExceptionReleasesTheMutexAndReachesTheCaller) {
    NormalLock lock;
    EXPECT_THROW(lock.write([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
    // Another thread can only get in if the throwing call released the mutex.
    std::thread other([&] { EXPECT_EQ(lock.read([] { return 5; }), 5); });
    other.join();
}

TEST(NormalLock, ReadAndReturnPassesObjectsAndNull) {
    NormalLock lock;
    auto object = std::make_shared<double>(1.5);
    EXPECT_EQ(lock.readAndReturn([&] { return std::shared_ptr<void>(object); }).get(),
              object.get());
    EXPECT_EQ(lock.readAndReturn([] { return std::shared_ptr<void>(); }), nullptr);
    EXPECT_EQ(lock.readAndReturn(nullptr), nullptr);
}

}  // namespace
}  // namespace zdr
