// ZDRSerializer: run blocks on the main queue, now or after a delay, and tell
// whether the caller is on the main thread.
//
// The main queue runs only when the host drains it (DispatchQueue::main():
// drain(), run() or its pollFd() in the host's event loop); the main thread is
// the thread that drains it. Nothing here blocks: work either runs inline on
// the main thread (dispatchOnMainIfRequired) or is submitted.
//
// Threads: every function may be called from any thread. Blocks run on the
// main thread. A null block is ignored.
#pragma once

#include <functional>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

class ZDRSerializer {
 public:
    /// Now plus `seconds`, converted to nanoseconds in 32-bit floating point
    /// and truncated. Values that are not finite, or beyond about 100 years
    /// either way, are clamped (NaN counts as 0).
    static DispatchTime dispatchTimeForSeconds(float seconds);

    /// Delay greater than 0: the block runs on the main queue at
    /// dispatchTimeForSeconds(delay). Otherwise (0, negative, NaN) it is
    /// submitted to the main queue at once. Always asynchronous.
    static void asyncDelayedOnMainAfter(float seconds, std::function<void()> block);

    /// asyncDelayedOnMainAfter(0, block): asynchronous even on the main thread.
    static void asyncOnMain(std::function<void()> block);

    /// True when the calling thread is the main thread.
    static bool isMainQueue();

    /// On the main thread: runs the block before returning. Elsewhere: submits
    /// it to the main queue.
    static void dispatchOnMainIfRequired(std::function<void()> block);
};

}  // namespace zdr
