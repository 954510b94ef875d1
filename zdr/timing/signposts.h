// Signposts: performance markers (point events and named intervals) that a
// profiler shows on a timeline, costing one check when nobody listens.
//
// Markers are USDT probes of provider SCKitAudio (event, interval_begin,
// interval_end), each with a semaphore that the kernel raises while a tracer
// (perf, bpftrace, systemtap) is attached, so a probe nobody traces costs the
// load of its semaphore and a load of the recorder flag. Arguments: the
// marker's name (a C string), its id (64 bits) and a message (a C string,
// empty unless an interval was ended twice):
//
//     sudo bpftrace -e 'usdt:/path/to/app:SCKitAudio:interval_begin
//         { printf("%s %d\n", str(arg0), arg1); }'
//
// The host can also receive markers in-process: install a SignpostRecorder
// (SignpostRecordingBuffer keeps them in memory for a diagnostics view or a
// test). Markers then go to both.
//
// Names are static texts (string literals): they are passed by address and
// never copied or formatted. Identifiers come from one process-wide counter
// and are never 0 (the null identifier). The older fallback that hands out
// the null identifier and skips begin markers is never taken: probes are
// compiled into every build, which is the capability it stood for.
//
// Ending an interval twice never fails: the second end carries the message
// "[Error] Interval already ended". An interval begun while markers were off
// ends without a marker, since its begin was never seen.
//
// Threads: everything may be called from any thread. A recorder is called on
// the emitting thread, synchronously, and must be thread-safe itself;
// installRecorder() may race with emission (a marker emitted meanwhile reaches
// the old or the new recorder).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

extern "C" {
// USDT semaphores, raised by the kernel while a tracer is attached.
extern volatile unsigned short SCKitAudio_event_semaphore;
extern volatile unsigned short SCKitAudio_interval_begin_semaphore;
extern volatile unsigned short SCKitAudio_interval_end_semaphore;
}

namespace zdr {

enum class SignpostMarkerKind { event, intervalBegin, intervalEnd };

/// One marker as a recorder receives it.
struct SignpostMarker {
    SignpostMarkerKind kind = SignpostMarkerKind::event;
    const char* name = "";  // the static name given to the operation
    std::uint64_t id = 0;
    const char* message = "";  // "[Error] Interval already ended" on a second end
};

/// Receives markers in-process. Called on the emitting thread.
class SignpostRecorder {
 public:
    virtual ~SignpostRecorder() = default;
    virtual void record(const SignpostMarker& marker) = 0;
};

/// A recorder that keeps every marker in memory.
class SignpostRecordingBuffer final : public SignpostRecorder {
 public:
    void record(const SignpostMarker& marker) override;
    std::vector<SignpostMarker> markers() const;
    void clear();

 private:
    mutable std::mutex mutex_;
    std::vector<SignpostMarker> markers_;
};

namespace detail {
extern std::atomic<bool> signpostRecorderInstalled;
struct SignpostIntervalState {
    std::uint64_t id = 0;
    std::atomic<bool> ended{false};
};
void emitSignpostEvent(const char* name);
std::shared_ptr<SignpostIntervalState> emitSignpostBegin(const char* name, std::uint64_t id);
void emitSignpostEnd(const char* name, SignpostIntervalState& state);
std::uint64_t nextSignpostIdentifier();

inline bool signpostsEnabled(volatile unsigned short& semaphore) {
    return __builtin_expect(semaphore != 0, 0) ||
           __builtin_expect(signpostRecorderInstalled.load(std::memory_order_relaxed), 0);
}
}  // namespace detail

/// The signposter's identity: subsystem "SCKitAudio", points of interest.
struct ZDR_OSSignposting_Constants {
    struct Signposter {
        const char* subsystem;
        const char* category;
    };
    static const Signposter& signPoster();
};

/// The end of an interval, whatever its kind.
class ZDR_SignpostInterval {
 public:
    virtual ~ZDR_SignpostInterval() = default;
    virtual void endInterval() = 0;
};

class ZDR_SignpostInterval_Actual final : public ZDR_SignpostInterval {
 public:
    ZDR_SignpostInterval_Actual(std::shared_ptr<detail::SignpostIntervalState> interval,
                                const char* name)
        : interval_(std::move(interval)), name_(name) {}

    /// Emits the end marker (see above). Copies share one state: whichever
    /// copy ends first ends the interval.
    void endInterval() override {
        if (interval_ && detail::signpostsEnabled(SCKitAudio_interval_end_semaphore)) {
            detail::emitSignpostEnd(name_, *interval_);
        }
    }

    const char* name() const { return name_; }
    /// The interval's identifier (0 when begun while markers were off).
    std::uint64_t id() const { return interval_ ? interval_->id : 0; }
    bool isOpen() const { return interval_ && !interval_->ended.load(); }

 private:
    std::shared_ptr<detail::SignpostIntervalState> interval_;
    const char* name_;
};

/// An interval that records nothing.
class ZDR_SignpostInterval_Mock final : public ZDR_SignpostInterval {
 public:
    void endInterval() override {}
};

struct ZDR_SignpostID {
    std::uint64_t id = 0;

    /// Begins an interval named `name` with this identifier.
    ZDR_SignpostInterval_Actual beginInterval(const char* name) const {
        if (detail::signpostsEnabled(SCKitAudio_interval_begin_semaphore)) {
            return ZDR_SignpostInterval_Actual(detail::emitSignpostBegin(name, id), name);
        }
        return ZDR_SignpostInterval_Actual(nullptr, name);
    }

    /// beginInterval(name), work(), endInterval(); returns what work returns.
    template <class F>
    decltype(auto) withIntervalSignpost(const char* name, F&& work) const {
        auto interval = beginInterval(name);
        struct Ender {
            ZDR_SignpostInterval_Actual& interval;
            ~Ender() { interval.endInterval(); }
        } ender{interval};
        return std::forward<F>(work)();
    }
};

class ZDR_OSSignposting {
 public:
    /// A fresh identifier.
    static ZDR_SignpostID makeIdentifier() {
        return ZDR_SignpostID{detail::nextSignpostIdentifier()};
    }

    /// A point event named `name`, with a fresh identifier.
    static void emitEvent(const char* name) {
        if (detail::signpostsEnabled(SCKitAudio_event_semaphore)) detail::emitSignpostEvent(name);
    }

    /// Installs `recorder` (null: none) and answers the one it replaces.
    static std::shared_ptr<SignpostRecorder> installRecorder(
        std::shared_ptr<SignpostRecorder> recorder);
};

}  // namespace zdr
