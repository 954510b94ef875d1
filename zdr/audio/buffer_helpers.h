// BufferHelpers: getting at the raw audio buffers inside a captured
// SampleBuffer.
//
// createAudioBufferListFromCMSampleBuffer answers a newly allocated
// AudioBufferList (C allocator; the pointer type frees it) whose buffers point
// into the sample buffer's block buffer, and hands that block buffer out so the
// bytes stay alive while the list is used. doSomethingWithABLIn does the same
// around a closure and releases everything afterwards.
//
// Failures are answered, never thrown: an Error in the "ZDR" domain, code 0,
// with the message under kNSLocalizedDescriptionKey.
//
// Thread safety: class operations only; any thread. The closure runs on the
// calling thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "zdr/audio/sample_buffer.h"
#include "zdr/runtime/error.h"

namespace zdr {

class BufferHelpers {
 public:
    /// The list filled from `sample`, or null with `error` filled (when given).
    /// `outBlockBuffer` is required: without it the call fails at once and the
    /// sample buffer is not touched.
    static AudioBufferListPtr createAudioBufferListFromCMSampleBuffer(
        const std::shared_ptr<SampleBuffer>& sample, std::shared_ptr<BlockBuffer>* outBlockBuffer,
        Error* error);

    /// Calls `callback` with the sample buffer's list, then releases the list
    /// and the block buffer. Answers the error of the step above instead of
    /// calling `callback` when the list cannot be made.
    [[nodiscard]] static std::optional<Error> doSomethingWithABLIn(
        const std::shared_ptr<SampleBuffer>& sample,
        const std::function<void(AudioBufferList&)>& callback);
};

}  // namespace zdr
