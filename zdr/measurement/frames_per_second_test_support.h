// Test support: replaces the tick source of the frames-per-second functions
// (and the tick frequency they divide by) for the life of the object, so that
// frame intervals can be exact. One at a time; not for production use.
#pragma once

#include <cstdint>

namespace zdr::testing {

class ScopedFrameTickSource {
 public:
    using TickSource = std::uint64_t (*)();
    ScopedFrameTickSource(TickSource ticks, double ticksPerSecond);
    ~ScopedFrameTickSource();
    ScopedFrameTickSource(const ScopedFrameTickSource&) = delete;
    ScopedFrameTickSource& operator=(const ScopedFrameTickSource&) = delete;

 private:
    TickSource previousSource_;
    double previousScale_;
};

}  // namespace zdr::testing
