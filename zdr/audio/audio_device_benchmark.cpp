// Speed of the registry and the listener fan-out on the simulated backend,
// each against its peer in the same run:
//   BM_DeviceForCoreAudioID_Registered / BM_UnorderedMapLookupBaseline
//   BM_DeviceListChange/N     the device-list handler with N registered devices,
//                             none changed (HalCallsPerChange is reported)
//   BM_PropertyChangeFanOut/100  one property change until the last of 100
//                             listener closures has run
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <unordered_map>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"

namespace {

using namespace zdr;
using namespace zdr::hal;

std::shared_ptr<SimulatedAudioHardware> machineWith(int devices) {
    SimulatedHardwareDescription d;
    for (int i = 0; i < devices; ++i) {
        SimulatedDeviceSpec s;
        s.uid = "bench-device-" + std::to_string(i);
        s.name = "Bench device " + std::to_string(i);
        s.output.streamChannels = {2};
        s.output.volumes = {{0, 0.5f, true}};
        d.devices.push_back(s);
    }
    auto hw = std::make_shared<SimulatedAudioHardware>(d);
    AudioDevice::_test_resetRegistry(hw);
    DispatchQueue::main().drain();
    return hw;
}

void BM_DeviceForCoreAudioID_Registered(benchmark::State& state) {
    auto hw = std::make_shared<SimulatedAudioHardware>(SimulatedAudioHardware::defaultDesktop());
    AudioDevice::_test_resetRegistry(hw);
    const AudioObjectID id = *hw->objectIDForUID("BuiltInMicrophoneDevice");
    auto held = AudioDevice::deviceForCoreAudioID(id);
    for (auto _ : state) {
        auto d = AudioDevice::deviceForCoreAudioID(id);
        benchmark::DoNotOptimize(d);
    }
    DispatchQueue::main().drain();
}
BENCHMARK(BM_DeviceForCoreAudioID_Registered);

void BM_UnorderedMapLookupBaseline(benchmark::State& state) {
    std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<int>> map;
    for (const char* uid : {"BuiltInSpeakerDevice", "BuiltInMicrophoneDevice", "HDMI:DELL U2720Q:0",
                            "AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2",
                            "ZDRAudioCapture:3", "ZDRAudioCapture:4"}) {
        map[uid] = std::make_shared<int>(1);
    }
    const std::string key = "BuiltInMicrophoneDevice";
    for (auto _ : state) {
        std::shared_ptr<int> found;
        {
            std::lock_guard lock(mutex);
            auto it = map.find(key);
            if (it != map.end()) found = it->second;
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_UnorderedMapLookupBaseline);

void BM_DeviceListChange(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    auto hw = machineWith(n);
    std::vector<std::shared_ptr<AudioDevice>> held;
    for (const auto& uid : hw->pluggedDeviceUIDs()) {
        held.push_back(AudioDevice::deviceForCoreAudioUID(uid));
    }
    const auto callsBefore = hw->callCount();
    std::int64_t changes = 0;
    for (auto _ : state) {
        AudioDevice::hardwarePropertyNotification(0);
        ++changes;
        if (changes % 64 == 0) {
            state.PauseTiming();
            DispatchQueue::main().drain();  // the posted kAudioDevicesChanged
            state.ResumeTiming();
        }
    }
    state.counters["HalCallsPerChange"] =
        static_cast<double>(hw->callCount() - callsBefore) / static_cast<double>(changes);
    state.counters["Devices"] = n;
    DispatchQueue::main().drain();
}
BENCHMARK(BM_DeviceListChange)->Arg(8)->Arg(64)->Arg(512)->Unit(benchmark::kMicrosecond);

void BM_PropertyChangeFanOut(benchmark::State& state) {
    const int listeners = static_cast<int>(state.range(0));
    auto hw = machineWith(1);
    auto device = AudioDevice::deviceForCoreAudioUID(std::string("bench-device-0"));
    std::mutex mutex;
    std::condition_variable done;
    std::atomic<std::int64_t> calls{0};
    std::atomic<std::int64_t> target{0};
    std::vector<std::shared_ptr<AudioPropertyListenerToken>> tokens;
    for (int i = 0; i < listeners; ++i) {
        tokens.push_back(AudioDevice::addGlobalListenerForProperties(
            {kAudioDevicePropertyVolumeScalar},
            [&](const std::shared_ptr<AudioDevice>&, AudioObjectPropertySelector) {
                if (calls.fetch_add(1) + 1 == target) {
                    std::lock_guard lock(mutex);
                    done.notify_all();
                }
            }));
    }
    float volume = 0.25f;
    for (auto _ : state) {
        target.store(calls.load() + listeners);
        volume = volume == 0.25f ? 0.75f : 0.25f;
        hw->setVolume("bench-device-0", false, 0, volume);
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return calls.load() >= target; });
        lock.unlock();
        state.PauseTiming();
        DispatchQueue::main().drain();  // the device's own reactions
        state.ResumeTiming();
    }
    for (auto& t : tokens) AudioDevice::removeGlobalListenerForToken(t);
    DispatchQueue::main().drain();
}
BENCHMARK(BM_PropertyChangeFanOut)->Arg(100)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
