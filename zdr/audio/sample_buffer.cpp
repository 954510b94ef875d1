#include "zdr/audio/sample_buffer.h"

namespace zdr {

std::shared_ptr<SampleBuffer> SampleBuffer::make(const hal::AudioStreamBasicDescription& format,
                                                 std::int64_t numSamples,
                                                 std::shared_ptr<BlockBuffer> block) {
    return std::shared_ptr<SampleBuffer>(new SampleBuffer(format, numSamples, std::move(block)));
}

std::shared_ptr<SampleBuffer> SampleBuffer::make(const hal::AudioStreamBasicDescription& format,
                                                 std::int64_t numSamples,
                                                 std::vector<std::byte> bytes) {
    return make(format, numSamples, std::make_shared<BlockBuffer>(std::move(bytes)));
}

std::uint32_t SampleBuffer::numberBuffers() const {
    if (format_.IsInterleaved()) return 1;
    return format_.mChannelsPerFrame;
}

hal::OSStatus SampleBuffer::getAudioBufferListWithRetainedBlockBuffer(
    std::size_t* sizeNeededOut, AudioBufferList* ablOut, std::size_t ablSize,
    std::shared_ptr<BlockBuffer>* blockBufferOut) const {
    if (!format_.IsPCM() || format_.mChannelsPerFrame == 0 || format_.mBytesPerFrame == 0) {
        return kCMSampleBufferError_InvalidMediaFormat;
    }
    const std::uint32_t buffers = numberBuffers();
    if (sizeNeededOut != nullptr) *sizeNeededOut = audioBufferListSize(buffers);
    if (ablOut == nullptr) return 0;
    if (blockBufferOut == nullptr) return kCMSampleBufferError_RequiredParameterMissing;
    if (ablSize < audioBufferListSize(buffers)) return kCMSampleBufferError_ArrayTooSmall;
    if (!block_) return kCMSampleBufferError_BufferNotReady;

    // Every buffer holds numSamples frames of mBytesPerFrame bytes (for planar
    // formats mBytesPerFrame is per channel). The product is checked before it
    // is trusted: a frame count from a broken source must not make us hand out
    // pointers past the end of the data.
    if (numSamples_ < 0) return kCMSampleBufferError_CannotSubdivide;
    const auto frames = static_cast<std::uint64_t>(numSamples_);
    const std::uint64_t perBuffer = frames * format_.mBytesPerFrame;
    if (frames != 0 && perBuffer / frames != format_.mBytesPerFrame) {
        return kCMSampleBufferError_CannotSubdivide;
    }
    if (perBuffer > UINT32_MAX || perBuffer * buffers / buffers != perBuffer ||
        perBuffer * buffers != block_->dataLength()) {
        return kCMSampleBufferError_CannotSubdivide;
    }

    ablOut->mNumberBuffers = buffers;
    AudioBuffer* out = ablOut->buffers();
    const std::uint32_t channelsPerBuffer = format_.IsInterleaved() ? format_.mChannelsPerFrame : 1;
    for (std::uint32_t i = 0; i < buffers; ++i) {
        out[i].mNumberChannels = channelsPerBuffer;
        out[i].mDataByteSize = static_cast<std::uint32_t>(perBuffer);
        out[i].mData = perBuffer == 0 ? nullptr : block_->data() + perBuffer * i;
    }
    *blockBufferOut = block_;
    return 0;
}

}  // namespace zdr
