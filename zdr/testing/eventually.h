// eventually(): waits, with a generous bound, for a condition that other
// threads or queues make true, so that tests of asynchronous behaviour neither
// sleep and hope nor fail on a slow machine. An optional step runs before each
// check (to drain a queue, for instance). Test-only; any thread.
#pragma once

#include <chrono>
#include <thread>

namespace zdr::testing {

struct NoStep {
    void operator()() const {}
};

/// True as soon as `done()` holds; false if it still does not after `timeout`.
template <class Pred, class Step = NoStep>
bool eventually(Pred&& done, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000),
                Step&& step = Step{}) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        step();
        if (done()) return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace zdr::testing
