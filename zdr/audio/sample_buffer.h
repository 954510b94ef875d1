// SampleBuffer: a captured stretch of audio as capture code hands it on: a
// stream format, a number of frames, and the bytes in a BlockBuffer that owns
// them. It stands where the media framework's sample buffer stands, including
// its one call for reaching the raw buffers: getAudioBufferListWithRetainedBlockBuffer,
// which fills a caller-allocated AudioBufferList (the C layout: a count and a
// trailing array of buffers) and hands out the block buffer that keeps the bytes
// alive.
//
// Interleaved formats have one buffer holding every channel; non-interleaved
// (planar) formats have one buffer per channel, laid out one after the other
// in the block buffer. A sample buffer may be built without data or with a
// byte count that does not fit its format (as a broken capture source would
// deliver it): it is then refused when its buffers are asked for, never read
// out of bounds.
//
// Thread safety: a SampleBuffer and its BlockBuffer are immutable once made and
// may be shared between threads; writing into the bytes through an
// AudioBufferList is the caller's business (as with the platform's buffers).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "zdr/audio/hal/ca_stream_basic_description.h"
#include "zdr/audio/hal/hal_types.h"

namespace zdr {

/// One buffer of an AudioBufferList (the platform's 16-byte record).
struct AudioBuffer {
    std::uint32_t mNumberChannels = 0;
    std::uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

/// The platform's variable-length list: mNumberBuffers entries follow, of
/// which the first is declared. Allocate it with audioBufferListSize().
struct AudioBufferList {
    std::uint32_t mNumberBuffers = 0;
    AudioBuffer mBuffers[1];

    AudioBuffer* buffers() { return mBuffers; }
    const AudioBuffer* buffers() const { return mBuffers; }
};

/// Bytes an AudioBufferList with `numberBuffers` entries needs.
constexpr std::size_t audioBufferListSize(std::uint32_t numberBuffers) {
    return offsetof(AudioBufferList, mBuffers) +
           sizeof(AudioBuffer) * (numberBuffers == 0 ? 1 : numberBuffers);
}

/// Frees what the C allocator handed out (lists from BufferHelpers).
struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
};
using AudioBufferListPtr = std::unique_ptr<AudioBufferList, FreeDeleter>;

/// The memory behind a sample buffer.
class BlockBuffer {
 public:
    explicit BlockBuffer(std::vector<std::byte> bytes) : bytes_(std::move(bytes)) {}
    std::size_t dataLength() const { return bytes_.size(); }
    std::byte* data() { return bytes_.data(); }
    const std::byte* data() const { return bytes_.data(); }

 private:
    std::vector<std::byte> bytes_;
};

// Statuses of the media framework's sample-buffer calls (same values).
inline constexpr hal::OSStatus kCMSampleBufferError_RequiredParameterMissing = -12731;
inline constexpr hal::OSStatus kCMSampleBufferError_BufferNotReady = -12733;
inline constexpr hal::OSStatus kCMSampleBufferError_ArrayTooSmall = -12737;
inline constexpr hal::OSStatus kCMSampleBufferError_CannotSubdivide = -12739;
inline constexpr hal::OSStatus kCMSampleBufferError_InvalidMediaFormat = -12743;

class SampleBuffer {
 public:
    /// A sample buffer of `numSamples` frames in `format` backed by `block`
    /// (null: no data yet).
    static std::shared_ptr<SampleBuffer> make(const hal::AudioStreamBasicDescription& format,
                                              std::int64_t numSamples,
                                              std::shared_ptr<BlockBuffer> block);
    /// Convenience: copies `bytes` into a new block buffer.
    static std::shared_ptr<SampleBuffer> make(const hal::AudioStreamBasicDescription& format,
                                              std::int64_t numSamples,
                                              std::vector<std::byte> bytes);

    const hal::CAStreamBasicDescription& format() const { return format_; }
    std::int64_t numSamples() const { return numSamples_; }
    const std::shared_ptr<BlockBuffer>& dataBuffer() const { return block_; }
    bool dataIsReady() const { return block_ != nullptr; }

    /// The number of AudioBuffers the format needs: 1 when interleaved, else
    /// one per channel.
    std::uint32_t numberBuffers() const;

    /// The platform call's contract: with `ablOut` null, only `sizeNeededOut`
    /// is answered. Otherwise `ablOut` (of `ablSize` bytes) is filled with
    /// pointers into the block buffer, which is handed out through
    /// `blockBufferOut` (required then). Statuses: 0; RequiredParameterMissing;
    /// BufferNotReady (no data); InvalidMediaFormat (not linear PCM, no
    /// channels or no bytes per frame); ArrayTooSmall (ablSize); CannotSubdivide
    /// (the data's length is not what format and frame count add up to).
    hal::OSStatus getAudioBufferListWithRetainedBlockBuffer(
        std::size_t* sizeNeededOut, AudioBufferList* ablOut, std::size_t ablSize,
        std::shared_ptr<BlockBuffer>* blockBufferOut) const;

 private:
    SampleBuffer(const hal::AudioStreamBasicDescription& format, std::int64_t numSamples,
                 std::shared_ptr<BlockBuffer> block)
        : format_(format), numSamples_(numSamples), block_(std::move(block)) {}

    hal::CAStreamBasicDescription format_;
    std::int64_t numSamples_ = 0;
    std::shared_ptr<BlockBuffer> block_;
};

}  // namespace zdr
