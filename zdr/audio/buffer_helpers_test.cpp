// Sample buffers and the helpers that reach their raw audio buffers.
#include "zdr/audio/buffer_helpers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>

namespace zdr {
namespace {

std::string messageOf(const Error& e) { return e.localizedDescription(); }

std::vector<std::byte> floats(std::initializer_list<float> values) {
    std::vector<std::byte> bytes(values.size() * sizeof(float));
    if (!bytes.empty()) std::memcpy(bytes.data(), std::data(values), bytes.size());
    return bytes;
}

hal::AudioStreamBasicDescription planar(double rate, std::uint32_t channels) {
    auto d = hal::CAStreamBasicDescription::linearPCM(rate, channels);
    d.mFormatFlags |= hal::kAudioFormatFlagIsNonInterleaved;
    d.mBytesPerFrame = d.mBytesPerPacket = 4;  // per channel when planar
    return d;
}

TEST(BufferHelpers, InterleavedBufferGivesOneBufferOverTheBlockBuffer) {
    auto sample = SampleBuffer::make(hal::CAStreamBasicDescription::linearPCM(48000, 2), 2,
                                     floats({0.1f, 0.2f, 0.3f, 0.4f}));
    std::shared_ptr<BlockBuffer> block;
    Error error;
    auto list = BufferHelpers::createAudioBufferListFromCMSampleBuffer(sample, &block, &error);
    ASSERT_TRUE(list);
    ASSERT_EQ(block, sample->dataBuffer());
    ASSERT_EQ(list->mNumberBuffers, 1u);
    EXPECT_EQ(list->buffers()[0].mNumberChannels, 2u);
    EXPECT_EQ(list->buffers()[0].mDataByteSize, 16u);
    EXPECT_EQ(static_cast<float*>(list->buffers()[0].mData)[3], 0.4f);
}

TEST(BufferHelpers, PlanarBufferGivesOneBufferPerChannel) {
    auto sample = SampleBuffer::make(planar(44100, 3), 2, floats({1, 2, 3, 4, 5, 6}));
    std::vector<float> firsts;
    auto failure = BufferHelpers::doSomethingWithABLIn(sample, [&](AudioBufferList& abl) {
        for (std::uint32_t i = 0; i < abl.mNumberBuffers; ++i) {
            EXPECT_EQ(abl.buffers()[i].mNumberChannels, 1u);
            EXPECT_EQ(abl.buffers()[i].mDataByteSize, 8u);
            firsts.push_back(static_cast<float*>(abl.buffers()[i].mData)[0]);
        }
    });
    EXPECT_FALSE(failure);
    EXPECT_EQ(firsts, (std::vector<float>{1, 3, 5}));
}

TEST(BufferHelpers, MissingOutBlockBufferIsRefusedWithoutTouchingTheSample) {
    Error error;
    // A null sample buffer proves the sample is never looked at.
    auto list = BufferHelpers::createAudioBufferListFromCMSampleBuffer(nullptr, nullptr, &error);
    EXPECT_FALSE(list);
    EXPECT_EQ(error.domain, "ZDR");
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(messageOf(error),
              "You must specify an outBlockBuffer, otherwise you're setting yourself up for a "
              "memory leak");
}

TEST(BufferHelpers, BadSamplesAnswerNoneWithTheMessage) {
    const auto stereo = hal::CAStreamBasicDescription::linearPCM(48000, 2);
    struct Case {
        std::shared_ptr<SampleBuffer> sample;
        std::string message;
    };
    hal::AudioStreamBasicDescription notPCM = stereo;
    notPCM.mFormatID = hal::fourcc("aac ");
    const std::vector<Case> cases = {
        {nullptr, "Error getting the size of the ABLs from the dequeue sample buffer."},
        {SampleBuffer::make(notPCM, 2, floats({0, 0, 0, 0})),
         "Error getting the size of the ABLs from the dequeue sample buffer."},
        {SampleBuffer::make(stereo, 5, std::shared_ptr<BlockBuffer>()),
         "Error getting ABLs from the dequeue sample buffer, -12733. Buff has 5 samples."},
        {SampleBuffer::make(stereo, 3, floats({0, 0, 0, 0})),
         "Error getting ABLs from the dequeue sample buffer, -12739. Buff has 3 samples."},
        {SampleBuffer::make(stereo, -1, floats({})),
         "Error getting ABLs from the dequeue sample buffer, -12739. Buff has -1 samples."},
        // A frame count whose byte size overflows must not wrap round to a fit.
        {SampleBuffer::make(stereo, std::numeric_limits<std::int64_t>::max() / 2, floats({})),
         "Error getting ABLs from the dequeue sample buffer, -12739. Buff has -1 samples."},
    };
    for (const auto& c : cases) {
        std::shared_ptr<BlockBuffer> block;
        Error error;
        EXPECT_FALSE(
            BufferHelpers::createAudioBufferListFromCMSampleBuffer(c.sample, &block, &error));
        EXPECT_FALSE(block);
        EXPECT_EQ(messageOf(error), c.message);
        bool called = false;
        auto failure =
            BufferHelpers::doSomethingWithABLIn(c.sample, [&](AudioBufferList&) { called = true; });
        ASSERT_TRUE(failure);
        EXPECT_EQ(messageOf(*failure), c.message);
        EXPECT_FALSE(called);
    }
}

TEST(SampleBuffer, SizeQueryAndTooSmallList) {
    auto sample = SampleBuffer::make(planar(48000, 4), 1, floats({1, 2, 3, 4}));
    std::size_t size = 0;
    EXPECT_EQ(sample->getAudioBufferListWithRetainedBlockBuffer(&size, nullptr, 0, nullptr), 0);
    EXPECT_EQ(size, audioBufferListSize(4));
    AudioBufferList small;
    std::shared_ptr<BlockBuffer> block;
    EXPECT_EQ(
        sample->getAudioBufferListWithRetainedBlockBuffer(nullptr, &small, sizeof small, &block),
        kCMSampleBufferError_ArrayTooSmall);
    EXPECT_EQ(
        sample->getAudioBufferListWithRetainedBlockBuffer(nullptr, &small, sizeof small, nullptr),
        kCMSampleBufferError_RequiredParameterMissing);
}

}  // namespace
}  // namespace zdr
