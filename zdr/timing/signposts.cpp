#include "zdr/timing/signposts.h"

#define _SDT_HAS_SEMAPHORES 1
#include <sys/sdt.h>

extern "C" {
// The probes' semaphores live in the .probes section, where tracers look for
// them; the kernel adds one to a semaphore for each attached tracer.
__extension__ volatile unsigned short SCKitAudio_event_semaphore
    __attribute__((unused, section(".probes"))) = 0;
__extension__ volatile unsigned short SCKitAudio_interval_begin_semaphore
    __attribute__((unused, section(".probes"))) = 0;
__extension__ volatile unsigned short SCKitAudio_interval_end_semaphore
    __attribute__((unused, section(".probes"))) = 0;
}

namespace zdr {

namespace {

constexpr const char* kIntervalAlreadyEnded = "[Error] Interval already ended";

std::mutex& recorderMutex() {
    static auto* m = new std::mutex;
    return *m;
}
std::shared_ptr<SignpostRecorder>& recorderSlot() {
    static auto* slot = new std::shared_ptr<SignpostRecorder>;
    return *slot;
}

void toRecorder(const SignpostMarker& marker) {
    if (!detail::signpostRecorderInstalled.load(std::memory_order_acquire)) return;
    std::shared_ptr<SignpostRecorder> recorder;
    {
        std::lock_guard lock(recorderMutex());
        recorder = recorderSlot();
    }
    // Called outside the lock so that a recorder may emit or reinstall.
    if (recorder) recorder->record(marker);
}

}  // namespace

namespace detail {

std::atomic<bool> signpostRecorderInstalled{false};

std::uint64_t nextSignpostIdentifier() {
    static std::atomic<std::uint64_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

void emitSignpostEvent(const char* name) {
    const std::uint64_t id = nextSignpostIdentifier();
    const char* message = "";
    STAP_PROBE3(SCKitAudio, event, name, id, message);
    toRecorder({SignpostMarkerKind::event, name, id, message});
}

std::shared_ptr<SignpostIntervalState> emitSignpostBegin(const char* name, std::uint64_t id) {
    auto state = std::make_shared<SignpostIntervalState>();
    state->id = id;
    const char* message = "";
    STAP_PROBE3(SCKitAudio, interval_begin, name, id, message);
    toRecorder({SignpostMarkerKind::intervalBegin, name, id, message});
    return state;
}

void emitSignpostEnd(const char* name, SignpostIntervalState& state) {
    const bool wasEnded = state.ended.exchange(true);
    const char* message = wasEnded ? kIntervalAlreadyEnded : "";
    const std::uint64_t id = state.id;
    STAP_PROBE3(SCKitAudio, interval_end, name, id, message);
    toRecorder({SignpostMarkerKind::intervalEnd, name, id, message});
}

}  // namespace detail

const ZDR_OSSignposting_Constants::Signposter& ZDR_OSSignposting_Constants::signPoster() {
    static const Signposter signposter{"SCKitAudio", "PointsOfInterest"};
    return signposter;
}

std::shared_ptr<SignpostRecorder> ZDR_OSSignposting::installRecorder(
    std::shared_ptr<SignpostRecorder> recorder) {
    std::lock_guard lock(recorderMutex());
    const bool installed = recorder != nullptr;
    std::swap(recorderSlot(), recorder);
    detail::signpostRecorderInstalled.store(installed, std::memory_order_release);
    return recorder;
}

void SignpostRecordingBuffer::record(const SignpostMarker& marker) {
    std::lock_guard lock(mutex_);
    markers_.push_back(marker);
}

std::vector<SignpostMarker> SignpostRecordingBuffer::markers() const {
    std::lock_guard lock(mutex_);
    return markers_;
}

void SignpostRecordingBuffer::clear() {
    std::lock_guard lock(mutex_);
    markers_.clear();
}

}  // namespace zdr
