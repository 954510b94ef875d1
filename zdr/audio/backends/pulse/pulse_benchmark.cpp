// The library on the pulse backend against a bare libpulse client, on one
// private server:
//  - hot-plug latency: from a module load completing to the registry's
//    kAudioDevicesChanged notification running on the thread that drains the
//    main queue, against a bare client's subscription callback for the same
//    sink-new event;
//  - AudioDevice::outputDevices() with 32 sinks, against one
//    pa_context_get_sink_info_list round trip.
#include <benchmark/benchmark.h>
#include <pulse/pulseaudio.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/backends/pulse/detail/pulse_connection.h"
#include "zdr/audio/backends/pulse/pulse_audio_hardware.h"
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"
#include "zdr/runtime/notification_center.h"
#include "zdr/testing/pulse_server_fixture.h"

namespace {

using namespace std::chrono_literals;

zdr::testing::PulseServerFixture* server() {
    static zdr::testing::PulseServerFixture* s = [] {
        auto* f = new zdr::testing::PulseServerFixture();
        std::string error;
        if (!f->start(&error)) {
            std::fprintf(stderr, "no private pulseaudio server: %s\n", error.c_str());
            delete f;
            return static_cast<zdr::testing::PulseServerFixture*>(nullptr);
        }
        std::atexit([] { delete server(); });
        return f;
    }();
    return s;
}

// A signal one thread raises and another waits for.
struct Flag {
    std::mutex mutex;
    std::condition_variable cv;
    bool up = false;
    void raise() {
        {
            std::lock_guard lock(mutex);
            up = true;
        }
        cv.notify_one();
    }
    bool wait(std::chrono::milliseconds timeout = 5000ms) {
        std::unique_lock lock(mutex);
        bool ok = cv.wait_for(lock, timeout, [&] { return up; });
        up = false;
        return ok;
    }
    void reset() {
        std::lock_guard lock(mutex);
        up = false;
    }
};

// A bare libpulse client on its own threaded main loop.
class RawClient {
 public:
    explicit RawClient(const std::string& serverString) {
        loop_ = pa_threaded_mainloop_new();
        pa_threaded_mainloop_start(loop_);
        pa_threaded_mainloop_lock(loop_);
        ctx_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "zdr-bench-raw");
        pa_context_set_state_callback(ctx_, &RawClient::onState, this);
        pa_context_connect(ctx_, serverString.c_str(), PA_CONTEXT_NOAUTOSPAWN, nullptr);
        while (pa_context_get_state(ctx_) != PA_CONTEXT_READY &&
               PA_CONTEXT_IS_GOOD(pa_context_get_state(ctx_))) {
            pa_threaded_mainloop_wait(loop_);
        }
        pa_threaded_mainloop_unlock(loop_);
    }
    ~RawClient() {
        pa_threaded_mainloop_lock(loop_);
        pa_context_disconnect(ctx_);
        pa_context_unref(ctx_);
        pa_threaded_mainloop_unlock(loop_);
        pa_threaded_mainloop_stop(loop_);
        pa_threaded_mainloop_free(loop_);
    }
    bool ready() { return pa_context_get_state(ctx_) == PA_CONTEXT_READY; }

    /// Subscribes to sinks; `onNewSink` runs on the main-loop thread.
    void subscribe(std::function<void()> onNewSink) {
        onNewSink_ = std::move(onNewSink);
        pa_threaded_mainloop_lock(loop_);
        pa_context_set_subscribe_callback(ctx_, &RawClient::onEvent, this);
        waitFor(pa_context_subscribe(ctx_, PA_SUBSCRIPTION_MASK_SINK, &RawClient::onSuccess, this));
        pa_threaded_mainloop_unlock(loop_);
    }

    uint32_t loadModule(const char* name, const std::string& args) {
        pa_threaded_mainloop_lock(loop_);
        index_ = PA_INVALID_INDEX;
        waitFor(pa_context_load_module(ctx_, name, args.c_str(), &RawClient::onIndex, this));
        pa_threaded_mainloop_unlock(loop_);
        return index_;
    }
    void unloadModule(uint32_t index) {
        pa_threaded_mainloop_lock(loop_);
        waitFor(pa_context_unload_module(ctx_, index, &RawClient::onSuccess, this));
        pa_threaded_mainloop_unlock(loop_);
    }
    /// One full sink list; the number of sinks.
    int sinkInfoList() {
        pa_threaded_mainloop_lock(loop_);
        count_ = 0;
        waitFor(pa_context_get_sink_info_list(ctx_, &RawClient::onSink, this));
        pa_threaded_mainloop_unlock(loop_);
        return count_;
    }

 private:
    void waitFor(pa_operation* op) {
        if (!op) return;
        while (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_threaded_mainloop_wait(loop_);
        pa_operation_unref(op);
    }
    static void onState(pa_context*, void* ud) {
        pa_threaded_mainloop_signal(static_cast<RawClient*>(ud)->loop_, 0);
    }
    static void onSuccess(pa_context*, int, void* ud) {
        pa_threaded_mainloop_signal(static_cast<RawClient*>(ud)->loop_, 0);
    }
    static void onIndex(pa_context*, uint32_t index, void* ud) {
        auto* self = static_cast<RawClient*>(ud);
        self->index_ = index;
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
    static void onSink(pa_context*, const pa_sink_info* info, int eol, void* ud) {
        auto* self = static_cast<RawClient*>(ud);
        if (eol == 0 && info) {
            ++self->count_;
            benchmark::DoNotOptimize(info->name);
        } else {
            pa_threaded_mainloop_signal(self->loop_, 0);
        }
    }
    static void onEvent(pa_context*, pa_subscription_event_type_t t, uint32_t, void* ud) {
        auto* self = static_cast<RawClient*>(ud);
        if ((t & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SINK &&
            (t & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_NEW &&
            self->onNewSink_) {
            self->onNewSink_();
        }
    }

    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* ctx_ = nullptr;
    uint32_t index_ = PA_INVALID_INDEX;
    int count_ = 0;
    std::function<void()> onNewSink_;
};

// Gives the registry an empty simulated machine, so that the pulse connection
// it held closes and does not load the server while the peer is measured.
void releaseRegistryBackend() {
    zdr::AudioDevice::_test_resetRegistry(std::make_shared<zdr::hal::SimulatedAudioHardware>());
}

// The host's main loop: a thread that drains the main queue.
class MainQueueThread {
 public:
    MainQueueThread() : thread_([] { zdr::DispatchQueue::main().run(); }) {}
    ~MainQueueThread() {
        zdr::DispatchQueue::main().stop();
        thread_.join();
    }

 private:
    std::thread thread_;
};

void BM_Pulse_HotplugLatency(benchmark::State& state) {
    if (!server()) return state.SkipWithError("no pulseaudio server");
    std::mutex mutex;
    std::condition_variable cv;
    uint64_t calls = 0;
    zdr::hal::PulseAudioHardware::Options options;
    options.server = server()->serverString();
    auto hal = zdr::hal::PulseAudioHardware::create(options);
    if (!hal) return state.SkipWithError("backend did not connect");
    // A fresh registry on this backend; its system listeners post the
    // device-list notification on the main queue.
    zdr::AudioDevice::_test_resetRegistry(hal);
    zdr::AudioDevice::outputDevices();
    RawClient driver(server()->serverString());
    MainQueueThread mainThread;
    auto observer = zdr::NotificationCenter::defaultCenter()->addObserver(
        zdr::kAudioDevicesChanged, nullptr, std::nullopt, [&](const zdr::Notification&) {
            std::lock_guard lock(mutex);
            ++calls;
            cv.notify_all();
        });
    auto callsNow = [&] {
        std::lock_guard lock(mutex);
        return calls;
    };
    auto waitBeyond = [&](uint64_t seen) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, 5s, [&] { return calls > seen; });
    };
    // Lets everything the server said so far travel through the backend, the
    // registry's notification queue and the main queue, until no more
    // notifications arrive: a late one from the last unload must not be taken
    // for the next plug.
    auto quiesce = [&] {
        for (uint64_t seen = ~uint64_t{0}; seen != callsNow();) {
            seen = callsNow();
            hal->connection()->roundTrip();
            std::this_thread::sleep_for(2ms);
            zdr::AudioDevice::notificationQueue().sync([] {});
            zdr::DispatchQueue::main().sync([] {});
        }
    };
    for (auto _ : state) {
        const uint64_t before = callsNow();
        const uint32_t module = driver.loadModule("module-null-sink", "sink_name=bench_hotplug");
        const auto start = std::chrono::steady_clock::now();
        if (!waitBeyond(before)) return state.SkipWithError("no kAudioDevicesChanged");
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        // The new sink must be there for a reader reacting to the notification.
        // Asked of the hardware layer so the registry does not adopt it: each
        // round is then a first plug, not a replug of a device it knows.
        if (hal->translateUIDToDevice("bench_hotplug") == zdr::hal::kAudioObjectUnknown) {
            return state.SkipWithError("kAudioDevicesChanged came before the device");
        }
        driver.unloadModule(module);
        while (hal->connection()->deviceByName(zdr::detail::PulseDeviceKind::source,
                                               "bench_hotplug.monitor") ||
               hal->translateUIDToDevice("bench_hotplug") != zdr::hal::kAudioObjectUnknown) {
            std::this_thread::sleep_for(50us);
        }
        quiesce();
    }
    observer.reset();
    quiesce();
    releaseRegistryBackend();
}
// Fixed rounds: each also loads and unloads a module outside the timed part.
BENCHMARK(BM_Pulse_HotplugLatency)->UseManualTime()->Iterations(300)->Unit(benchmark::kMicrosecond);

void BM_Pulse_RawSubscribeLatency(benchmark::State& state) {
    if (!server()) return state.SkipWithError("no pulseaudio server");
    RawClient driver(server()->serverString());
    RawClient listener(server()->serverString());
    Flag added;
    listener.subscribe([&] { added.raise(); });
    for (auto _ : state) {
        added.reset();
        const uint32_t module = driver.loadModule("module-null-sink", "sink_name=bench_hotplug");
        const auto start = std::chrono::steady_clock::now();
        if (!added.wait()) return state.SkipWithError("no sink-new event");
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        driver.unloadModule(module);
    }
}
BENCHMARK(BM_Pulse_RawSubscribeLatency)
    ->UseManualTime()
    ->Iterations(300)
    ->Unit(benchmark::kMicrosecond);

// Loads n null sinks for the enumeration benchmarks and unloads them after.
class Sinks {
 public:
    Sinks(RawClient& client, int n) : client_(client) {
        for (int i = 0; i < n; ++i) {
            modules_.push_back(
                client.loadModule("module-null-sink", "sink_name=bench_enum_" + std::to_string(i)));
        }
    }
    ~Sinks() {
        for (uint32_t m : modules_) client_.unloadModule(m);
    }

 private:
    RawClient& client_;
    std::vector<uint32_t> modules_;
};

void BM_Pulse_Enumerate(benchmark::State& state) {
    if (!server()) return state.SkipWithError("no pulseaudio server");
    RawClient driver(server()->serverString());
    const int n = static_cast<int>(state.range(0));
    Sinks sinks(driver, n);
    zdr::hal::PulseAudioHardware::Options options;
    options.server = server()->serverString();
    auto hal = zdr::hal::PulseAudioHardware::create(options);
    if (!hal) return state.SkipWithError("backend did not connect");
    zdr::AudioDevice::_test_resetRegistry(hal);
    for (auto _ : state) {
        auto outputs = zdr::AudioDevice::outputDevices();
        if (static_cast<int>(outputs.size()) < n) return state.SkipWithError("sinks missing");
        benchmark::DoNotOptimize(outputs);
    }
    releaseRegistryBackend();
}
BENCHMARK(BM_Pulse_Enumerate)->Arg(32)->Unit(benchmark::kMicrosecond);

void BM_Pulse_RawSinkInfoList(benchmark::State& state) {
    if (!server()) return state.SkipWithError("no pulseaudio server");
    RawClient driver(server()->serverString());
    const int n = static_cast<int>(state.range(0));
    Sinks sinks(driver, n);
    for (auto _ : state) {
        if (driver.sinkInfoList() < n) return state.SkipWithError("sinks missing");
    }
}
BENCHMARK(BM_Pulse_RawSinkInfoList)->Arg(32)->Unit(benchmark::kMicrosecond);

}  // namespace
