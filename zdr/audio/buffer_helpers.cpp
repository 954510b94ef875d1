#include "zdr/audio/buffer_helpers.h"

#include <cstdio>
#include <new>
#include <string>

namespace zdr {
namespace {

Error messageError(std::string message) {
    return Error("ZDR", 0, Dictionary{{kNSLocalizedDescriptionKey, std::move(message)}});
}

AudioBufferListPtr fail(Error* error, std::string message) {
    if (error != nullptr) *error = messageError(std::move(message));
    return nullptr;
}

}  // namespace

AudioBufferListPtr BufferHelpers::createAudioBufferListFromCMSampleBuffer(
    const std::shared_ptr<SampleBuffer>& sample, std::shared_ptr<BlockBuffer>* outBlockBuffer,
    Error* error) {
    // Without somewhere to put the retained block buffer the caller could not
    // release it; refuse before touching the sample buffer.
    if (outBlockBuffer == nullptr) {
        return fail(error,
                    "You must specify an outBlockBuffer, otherwise you're setting yourself up "
                    "for a memory leak");
    }
    std::size_t sizeNeeded = 0;
    hal::OSStatus status =
        sample ? sample->getAudioBufferListWithRetainedBlockBuffer(&sizeNeeded, nullptr, 0, nullptr)
               : kCMSampleBufferError_RequiredParameterMissing;
    if (status != 0) {
        return fail(error, "Error getting the size of the ABLs from the dequeue sample buffer.");
    }
    AudioBufferListPtr list(static_cast<AudioBufferList*>(std::malloc(sizeNeeded)));
    if (!list) throw std::bad_alloc();
    std::shared_ptr<BlockBuffer> block;
    status =
        sample->getAudioBufferListWithRetainedBlockBuffer(nullptr, list.get(), sizeNeeded, &block);
    if (status != 0) {
        char text[160];
        std::snprintf(text, sizeof text,
                      "Error getting ABLs from the dequeue sample buffer, %d. Buff has %d samples.",
                      static_cast<int>(status), static_cast<int>(sample->numSamples()));
        return fail(error, text);  // the list is freed on the way out
    }
    *outBlockBuffer = std::move(block);
    return list;
}

std::optional<Error> BufferHelpers::doSomethingWithABLIn(
    const std::shared_ptr<SampleBuffer>& sample,
    const std::function<void(AudioBufferList&)>& callback) {
    std::shared_ptr<BlockBuffer> block;
    Error error;
    AudioBufferListPtr list = createAudioBufferListFromCMSampleBuffer(sample, &block, &error);
    if (!list) return error;
    if (callback) callback(*list);
    return std::nullopt;
}

}  // namespace zdr
