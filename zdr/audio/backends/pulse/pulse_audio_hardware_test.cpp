#include "zdr/audio/backends/pulse/pulse_audio_hardware.h"

#include <gtest/gtest.h>

#include "zdr/testing/eventually.h"

#include <unistd.h>
#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>

#include "zdr/audio/detail/audio_log.h"
#include "zdr/audio/backends/pulse/detail/pulse_connection.h"
#include "zdr/testing/pulse_server_fixture.h"

namespace zdr::hal {
namespace {

using namespace std::chrono_literals;

AudioObjectPropertyAddress global(AudioObjectPropertySelector s) {
    return {s, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
const AudioObjectPropertyAddress kWildcard{kAudioObjectPropertySelectorWildcard,
                                           kAudioObjectPropertyScopeWildcard,
                                           kAudioObjectPropertyElementWildcard};

// Records listener calls (object, address) and lets a test wait for one. The
// blocks share the log's state, so a call that arrives after the log went out
// of scope touches nothing freed.
class CallLog {
 public:
    ListenerBlockRef block() {
        return makeListenerBlock(
            [state = state_](AudioObjectID object,
                             const std::vector<AudioObjectPropertyAddress>& addrs) {
                std::lock_guard lock(state->mutex);
                for (const auto& a : addrs) state->calls.push_back({object, a});
                state->cv.notify_all();
            });
    }
    bool waitFor(AudioObjectID object, AudioObjectPropertySelector selector,
                 std::chrono::milliseconds timeout = 5000ms, UInt32 element = ~0u) {
        std::unique_lock lock(state_->mutex);
        auto& calls = state_->calls;
        return state_->cv.wait_for(lock, timeout, [&] {
            for (size_t i = 0; i < calls.size(); ++i) {
                if (calls[i].first == object && calls[i].second.mSelector == selector &&
                    (element == ~0u || calls[i].second.mElement == element)) {
                    calls.erase(calls.begin(), calls.begin() + static_cast<long>(i) + 1);
                    return true;
                }
            }
            return false;
        });
    }

 private:
    struct State {
        std::mutex mutex;
        std::condition_variable cv;
        std::vector<std::pair<AudioObjectID, AudioObjectPropertyAddress>> calls;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

// On PulseAudio only, or (the restart tests) on each server that can run here.
template <class Base>
class PulseHardwareFixture : public Base {
 protected:
    void SetUp() override {
        Base::SetUp();
        if (this->IsSkipped() || this->HasFatalFailure()) return;
        PulseAudioHardware::Options options;
        options.server = this->server_->serverString();
        options.callTimeout = 400ms;
        hal_ = PulseAudioHardware::create(options);
        ASSERT_TRUE(hal_) << "no connection to the private server";
    }
    void TearDown() override {
        hal_.reset();
        Base::TearDown();
    }

    template <class T>
    std::optional<T> get(AudioObjectID object, AudioObjectPropertyAddress address,
                         const PropertyValue* qualifier = nullptr) {
        PropertyValue v;
        if (hal_->getPropertyData(object, address, qualifier, v) != kAudioHardwareNoError) {
            return std::nullopt;
        }
        return v.as<T>();
    }
    std::vector<UInt32> deviceList() {
        return get<std::vector<UInt32>>(kAudioObjectSystemObject,
                                        global(kAudioHardwarePropertyDevices))
            .value_or(std::vector<UInt32>{});
    }
    bool listen(AudioObjectID object, AudioObjectPropertyAddress address, CallLog& log) {
        return hal_->addPropertyListenerBlock(object, address, queue_, log.block()) ==
               kAudioHardwareNoError;
    }
    // The server reports a change some time after it answered the request
    // that caused it; tests wait for the effect with a generous bound.
    template <class Pred>
    static bool eventually(Pred pred, std::chrono::milliseconds timeout = 5000ms) {
        return zdr::testing::eventually(pred, timeout);
    }
    AudioObjectID waitForUID(const std::string& uid) {
        AudioObjectID id = kAudioObjectUnknown;
        eventually([&] { return (id = hal_->translateUIDToDevice(uid)) != kAudioObjectUnknown; });
        return id;
    }

    std::shared_ptr<PulseAudioHardware> hal_;
    DispatchQueue queue_{"test.pulse.listeners"};
};

using PulseAudioHardwareTest = PulseHardwareFixture<zdr::testing::PulseServerTest>;
class PulseAudioHardwareRestartTest : public PulseHardwareFixture<zdr::testing::AudioServerTest> {};
ZDR_INSTANTIATE_ON_BOTH_AUDIO_SERVERS(PulseAudioHardwareRestartTest);

TEST_F(PulseAudioHardwareTest, DevicesAndTheirProperties) {
    auto ids = deviceList();
    ASSERT_EQ(ids.size(), 3u);  // sink, its monitor, the null source
    const AudioObjectID sink = hal_->translateUIDToDevice("zdr_fixture_out");
    const AudioObjectID monitor = hal_->translateUIDToDevice("zdr_fixture_out.monitor");
    const AudioObjectID input = hal_->translateUIDToDevice("zdr_fixture_in");
    ASSERT_NE(sink, kAudioObjectUnknown);
    ASSERT_NE(monitor, kAudioObjectUnknown);
    EXPECT_EQ(hal_->translateUIDToDevice("nope"), kAudioObjectUnknown);

    EXPECT_EQ(get<std::string>(sink, global(kAudioObjectPropertyName)), "Fixture_Output");
    EXPECT_EQ(get<std::string>(sink, global(kAudioDevicePropertyDeviceUID)), "zdr_fixture_out");
    EXPECT_EQ(get<UInt32>(sink, global(kAudioDevicePropertyTransportType)),
              kAudioDeviceTransportTypeVirtual);
    EXPECT_EQ(get<UInt32>(sink, global(kAudioDevicePropertyDeviceIsAlive)), 1u);
    EXPECT_GT(get<Float64>(sink, global(kAudioDevicePropertyNominalSampleRate)).value_or(0), 0.0);

    const AudioObjectPropertyAddress outStreams{kAudioDevicePropertyStreams,
                                                kAudioObjectPropertyScopeOutput, 0};
    const AudioObjectPropertyAddress inStreams{kAudioDevicePropertyStreams,
                                               kAudioObjectPropertyScopeInput, 0};
    auto streams = get<std::vector<UInt32>>(sink, outStreams);
    ASSERT_TRUE(streams);
    ASSERT_EQ(streams->size(), 1u);
    EXPECT_TRUE(get<std::vector<UInt32>>(sink, inStreams)->empty());
    EXPECT_EQ(get<std::vector<UInt32>>(monitor, inStreams)->size(), 1u);
    EXPECT_EQ(get<std::vector<UInt32>>(input, outStreams)->size(), 0u);

    auto format =
        get<AudioStreamBasicDescription>((*streams)[0], global(kAudioStreamPropertyVirtualFormat));
    ASSERT_TRUE(format);
    EXPECT_EQ(format->mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(format->mChannelsPerFrame, 2u);
    EXPECT_EQ(get<UInt32>((*streams)[0], global(kAudioStreamPropertyDirection)), 0u);

    auto layout = get<AudioChannelLayout>(sink, global(kAudioDevicePropertyPreferredChannelLayout));
    ASSERT_TRUE(layout);
    ASSERT_EQ(layout->numberChannelDescriptions(), 2u);
    EXPECT_EQ(layout->mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Left);

    const AudioObjectPropertyAddress mainVolume{kAudioDevicePropertyVolumeScalar,
                                                kAudioObjectPropertyScopeOutput, 0};
    EXPECT_FLOAT_EQ(get<Float32>(sink, mainVolume).value_or(-1), 1.0f);
    bool settable = false;
    EXPECT_EQ(hal_->isPropertySettable(sink, mainVolume, settable), kAudioHardwareNoError);
    EXPECT_TRUE(settable);
    EXPECT_FALSE(hal_->hasProperty(
        sink, {kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeInput, 0}));
    EXPECT_FALSE(hal_->hasProperty(
        sink, {kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 3}));
    EXPECT_EQ(get<UInt32>(sink, {kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput, 0}),
              0u);
    UInt32 size = 0;
    EXPECT_EQ(hal_->getPropertyDataSize(kAudioObjectSystemObject,
                                        global(kAudioHardwarePropertyDevices), nullptr, size),
              kAudioHardwareNoError);
    EXPECT_EQ(size, 12u);

    EXPECT_EQ(
        get<UInt32>(kAudioObjectSystemObject, global(kAudioHardwarePropertyDefaultOutputDevice)),
        sink);
    // Errors are statuses: unknown object, unknown property, read-only property.
    PropertyValue v;
    EXPECT_EQ(hal_->getPropertyData(0x7ffffffe, global(kAudioObjectPropertyName), nullptr, v),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(hal_->getPropertyData(sink, global(kAudioDevicePropertyHogMode), nullptr, v),
              kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(hal_->setPropertyData(sink, global(kAudioObjectPropertyName), PropertyValue("x")),
              kAudioHardwareIllegalOperationError);
    AudioTimeStamp t;
    EXPECT_EQ(hal_->deviceGetCurrentTime(sink, t), kAudioHardwareNotRunningError);  // idle
}

TEST_F(PulseAudioHardwareTest, HiddenDeviceIsFoundByUIDOnly) {
    ASSERT_TRUE(
        server_->loadNullSink("secret", "Secret", "zdr.uid=ZDRAudioCapture:4 zdr.hidden=1"));
    const AudioObjectID hidden = waitForUID("ZDRAudioCapture:4");
    ASSERT_NE(hidden, kAudioObjectUnknown);
    auto ids = deviceList();
    EXPECT_EQ(std::count(ids.begin(), ids.end(), hidden), 0);
    EXPECT_EQ(get<UInt32>(hidden, global(kAudioDevicePropertyIsHidden)), 1u);
    EXPECT_EQ(get<std::string>(hidden, global(kAudioObjectPropertyName)), "Secret");
    // Its monitor carries no zdr.uid of its own and stays listed.
    EXPECT_NE(hal_->translateUIDToDevice("secret.monitor"), kAudioObjectUnknown);
}

TEST_F(PulseAudioHardwareTest, PlugAndUnplugReachListeners) {
    CallLog system, device;
    ASSERT_TRUE(listen(kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices), system));
    auto module = server_->loadNullSink("usbmic", "USB Mic", "zdr.uid=usb-mic");
    ASSERT_TRUE(module);
    ASSERT_TRUE(system.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
    // A reader reacting to the change already finds the device.
    const AudioObjectID first = hal_->translateUIDToDevice("usb-mic");
    ASSERT_NE(first, kAudioObjectUnknown);
    auto ids = deviceList();
    EXPECT_NE(std::find(ids.begin(), ids.end(), first), ids.end());
    ASSERT_TRUE(listen(first, kWildcard, device));
    const size_t before = hal_->listenerCount();

    ASSERT_TRUE(server_->unloadModule(*module));
    ASSERT_TRUE(device.waitFor(first, kAudioDevicePropertyDeviceIsAlive));
    ASSERT_TRUE(system.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
    PropertyValue v;
    EXPECT_EQ(hal_->getPropertyData(first, global(kAudioDevicePropertyDeviceIsAlive), nullptr, v),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(hal_->translateUIDToDevice("usb-mic"), kAudioObjectUnknown);
    // The gone device's listener goes with it.
    EXPECT_TRUE(eventually([&] { return hal_->listenerCount() == before - 1; }));

    ASSERT_TRUE(server_->loadNullSink("usbmic", "USB Mic", "zdr.uid=usb-mic"));
    ASSERT_TRUE(system.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
    const AudioObjectID again = waitForUID("usb-mic");
    EXPECT_NE(again, kAudioObjectUnknown);
    EXPECT_NE(again, first);
}

TEST_F(PulseAudioHardwareTest, DefaultDeviceChangesBothWays) {
    CallLog system;
    ASSERT_TRUE(listen(kAudioObjectSystemObject, global(kAudioHardwarePropertyDefaultOutputDevice),
                       system));
    ASSERT_TRUE(server_->loadNullSink("speakers", "Speakers"));
    ASSERT_TRUE(server_->pactl({"set-default-sink", "speakers"}));
    ASSERT_TRUE(
        system.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice));
    EXPECT_EQ(
        get<UInt32>(kAudioObjectSystemObject, global(kAudioHardwarePropertyDefaultOutputDevice)),
        hal_->translateUIDToDevice("speakers"));

    const AudioObjectID input = hal_->translateUIDToDevice("zdr_fixture_in");
    ASSERT_EQ(hal_->setPropertyData(kAudioObjectSystemObject,
                                    global(kAudioHardwarePropertyDefaultInputDevice),
                                    PropertyValue(UInt32{input})),
              kAudioHardwareNoError);
    EXPECT_EQ(
        get<UInt32>(kAudioObjectSystemObject, global(kAudioHardwarePropertyDefaultInputDevice)),
        input);
    std::string out;
    ASSERT_TRUE(server_->pactl({"get-default-source"}, &out));
    EXPECT_NE(out.find("zdr_fixture_in"), std::string::npos);
    // A source cannot be the default output.
    EXPECT_EQ(hal_->setPropertyData(kAudioObjectSystemObject,
                                    global(kAudioHardwarePropertyDefaultOutputDevice),
                                    PropertyValue(UInt32{input})),
              kAudioHardwareBadDeviceError);
}

TEST_F(PulseAudioHardwareTest, VolumeAndMuteFromOutsideAndFromUs) {
    const AudioObjectID sink = hal_->translateUIDToDevice("zdr_fixture_out");
    CallLog log;
    ASSERT_TRUE(listen(sink, kWildcard, log));
    ASSERT_TRUE(server_->pactl({"set-sink-volume", "zdr_fixture_out", "50%", "25%"}));
    ASSERT_TRUE(log.waitFor(sink, kAudioDevicePropertyVolumeScalar, 5000ms, 0));
    ASSERT_TRUE(log.waitFor(sink, kAudioDevicePropertyVolumeScalar, 5000ms, 2));
    const AudioObjectPropertyAddress main{kAudioDevicePropertyVolumeScalar,
                                          kAudioObjectPropertyScopeOutput, 0};
    const AudioObjectPropertyAddress right{kAudioDevicePropertyVolumeScalar,
                                           kAudioObjectPropertyScopeOutput, 2};
    EXPECT_NEAR(get<Float32>(sink, main).value_or(-1), 0.5f, 0.01f);
    EXPECT_NEAR(get<Float32>(sink, right).value_or(-1), 0.25f, 0.01f);

    ASSERT_TRUE(server_->pactl({"set-sink-mute", "zdr_fixture_out", "1"}));
    ASSERT_TRUE(log.waitFor(sink, kAudioDevicePropertyMute));

    // Our writes reach the server and keep the balance.
    ASSERT_EQ(hal_->setPropertyData(sink, main, PropertyValue(Float32{1.0f})),
              kAudioHardwareNoError);
    EXPECT_NEAR(get<Float32>(sink, right).value_or(-1), 0.5f, 0.01f);
    std::string out;
    ASSERT_TRUE(server_->pactl({"get-sink-volume", "zdr_fixture_out"}, &out));
    EXPECT_NE(out.find("100%"), std::string::npos) << out;
    EXPECT_NE(out.find("50%"), std::string::npos) << out;
    ASSERT_EQ(
        hal_->setPropertyData(sink, {kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput, 0},
                              PropertyValue(UInt32{0})),
        kAudioHardwareNoError);
    ASSERT_TRUE(server_->pactl({"get-sink-mute", "zdr_fixture_out"}, &out));
    EXPECT_NE(out.find("no"), std::string::npos);
    EXPECT_EQ(hal_->setPropertyData(sink, main, PropertyValue(UInt32{1})),
              kAudioHardwareBadPropertySizeError);
}

TEST_F(PulseAudioHardwareTest, ListenerBookkeeping) {
    CallLog log;
    auto block = log.block();
    const auto address = global(kAudioHardwarePropertyDevices);
    EXPECT_EQ(hal_->addPropertyListenerBlock(kAudioObjectSystemObject, address, queue_, block),
              kAudioHardwareNoError);
    EXPECT_EQ(hal_->addPropertyListenerBlock(kAudioObjectSystemObject, address, queue_, block),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(hal_->addPropertyListenerBlock(0x7ffffffe, address, queue_, block),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(hal_->removePropertyListenerBlock(kAudioObjectSystemObject, address, queue_, block),
              kAudioHardwareNoError);
    EXPECT_EQ(hal_->removePropertyListenerBlock(kAudioObjectSystemObject, address, queue_, block),
              kAudioHardwareIllegalOperationError);
    // Removed: later changes do not reach it.
    ASSERT_TRUE(server_->loadNullSink("quiet"));
    ASSERT_NE(waitForUID("quiet"), kAudioObjectUnknown);
    EXPECT_FALSE(log.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, 200ms));
}

TEST_P(PulseAudioHardwareRestartTest, ServerRestartIsReportedAndDevicesComeBack) {
    CallLog system, later;
    ASSERT_TRUE(
        listen(kAudioObjectSystemObject, global(kAudioHardwarePropertyServiceRestarted), system));
    ASSERT_TRUE(listen(kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices), later));
    const AudioObjectID sink = hal_->translateUIDToDevice("zdr_fixture_out");
    CallLog device;
    ASSERT_TRUE(listen(sink, global(kAudioDevicePropertyDeviceIsAlive), device));

    // The loss and the return are logged through the audio category, never
    // written to the host's standard error.
    std::mutex logMutex;
    std::vector<std::string> logged;
    zdr::detail::setAudioLogObserver([&](const zdr::detail::AudioLogRecord& r) {
        std::lock_guard lock(logMutex);
        logged.push_back(r.message);
    });
    ::testing::internal::CaptureStderr();
    std::string error;
    const bool restarted = server_->restart(&error);
    const bool alive = restarted && device.waitFor(sink, kAudioDevicePropertyDeviceIsAlive);
    const bool reported =
        alive && system.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyServiceRestarted);
    const std::string written = ::testing::internal::GetCapturedStderr();
    zdr::detail::setAudioLogObserver(nullptr);
    ASSERT_TRUE(restarted) << error;
    ASSERT_TRUE(alive);
    ASSERT_TRUE(reported);
    EXPECT_EQ(written.find("audio server"), std::string::npos) << written;
    {
        std::lock_guard lock(logMutex);
        auto has = [&](const std::string& text) {
            return std::any_of(logged.begin(), logged.end(), [&](const std::string& m) {
                return m.find(text) != std::string::npos;
            });
        };
        EXPECT_TRUE(has("connection to the audio server lost"));
        EXPECT_TRUE(has("the audio server answers again"));
    }
    const AudioObjectID rebound = hal_->translateUIDToDevice("zdr_fixture_out");
    EXPECT_NE(rebound, kAudioObjectUnknown);
    EXPECT_NE(rebound, sink);
    // System listeners survive the restart.
    ASSERT_TRUE(later.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
    ASSERT_TRUE(server_->loadNullSink("after_restart"));
    EXPECT_TRUE(later.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
}

TEST_F(PulseAudioHardwareTest, HangingServerAnswersInBoundedTime) {
    const AudioObjectID sink = hal_->translateUIDToDevice("zdr_fixture_out");
    server_->suspend();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(
        hal_->setPropertyData(sink, {kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput, 0},
                              PropertyValue(UInt32{1})),
        kAudioHardwareNotRunningError);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);  // timeout is 400 ms
    EXPECT_EQ(get<std::string>(sink, global(kAudioObjectPropertyName)), "Fixture_Output");
    server_->resume();
}

TEST_F(PulseAudioHardwareTest, LostServerAnswersNotRunningUntilItReturns) {
    const AudioObjectID sink = hal_->translateUIDToDevice("zdr_fixture_out");
    CallLog log;
    ASSERT_TRUE(listen(kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices), log));
    server_->kill();
    ASSERT_TRUE(log.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
    PropertyValue v;
    EXPECT_EQ(hal_->getPropertyData(sink, global(kAudioObjectPropertyName), nullptr, v),
              kAudioHardwareNotRunningError);
    EXPECT_EQ(hal_->getPropertyData(kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices),
                                    nullptr, v),
              kAudioHardwareNotRunningError);
    EXPECT_FALSE(hal_->isConnected());
    std::string error;
    ASSERT_TRUE(server_->start(&error)) << error;
    ASSERT_TRUE(log.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
    EXPECT_TRUE(hal_->isConnected());
}

TEST(PulseAudioHardwareNoServer, CreateGivesUpOrWaitsAsAsked) {
    if (!zdr::testing::PulseServerFixture::pulseaudioBinary()) GTEST_SKIP() << "no pulseaudio";
    zdr::testing::PulseServerFixture server;
    PulseAudioHardware::Options options;
    options.server = server.serverString();
    options.connectTimeout = 200ms;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(PulseAudioHardware::create(options));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);

    options.requireServer = false;
    auto hal = PulseAudioHardware::create(options);
    ASSERT_TRUE(hal);
    EXPECT_FALSE(hal->isConnected());
    CallLog log;
    DispatchQueue queue("test.pulse.noserver");
    ASSERT_EQ(
        hal->addPropertyListenerBlock(kAudioObjectSystemObject,
                                      global(kAudioHardwarePropertyDevices), queue, log.block()),
        kAudioHardwareNoError);
    std::string error;
    ASSERT_TRUE(server.start(&error)) << error;
    EXPECT_TRUE(log.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyDevices));
    EXPECT_NE(hal->translateUIDToDevice("zdr_fixture_out"), kAudioObjectUnknown);
}

size_t residentKiB() {
    std::ifstream statm("/proc/self/statm");
    size_t pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * static_cast<size_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

// 200 plug/unplug cycles with listeners registered: every cycle ends with the
// device back, nothing accumulates.
TEST_F(PulseAudioHardwareTest, HotplugStormStaysFlat) {
    CallLog system;
    ASSERT_TRUE(listen(kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices), system));
    auto conn = hal_->connection();
    const size_t listenersBefore = hal_->listenerCount();
    size_t rssAfterWarmup = 0;
    AudioObjectID previous = kAudioObjectUnknown;
    for (int cycle = 0; cycle < 200; ++cycle) {
        auto module = conn->loadModule("module-null-sink", "sink_name=storm");
        ASSERT_TRUE(module) << "cycle " << cycle;
        const AudioObjectID id = waitForUID("storm");
        ASSERT_NE(id, kAudioObjectUnknown) << "cycle " << cycle;
        ASSERT_NE(id, previous);
        previous = id;
        CallLog device;
        ASSERT_TRUE(listen(id, kWildcard, device));
        ASSERT_EQ(conn->unloadModule(*module), detail::PulseCallResult::ok);
        ASSERT_TRUE(device.waitFor(id, kAudioDevicePropertyDeviceIsAlive)) << "cycle " << cycle;
        if (cycle == 20) rssAfterWarmup = residentKiB();
    }
    EXPECT_TRUE(eventually([&] { return deviceList().size() == 3u; }));
    EXPECT_EQ(hal_->translateUIDToDevice("storm"), kAudioObjectUnknown);
    EXPECT_EQ(deviceList().size(), 3u);
    // A gone device's listeners are dropped right after its last call.
    EXPECT_TRUE(eventually([&] { return hal_->listenerCount() == listenersBefore; }));
    EXPECT_LT(residentKiB(), rssAfterWarmup + 4096) << "resident memory grew";
}

TEST_P(PulseAudioHardwareRestartTest, TenRestartsInARow) {
    CallLog system;
    ASSERT_TRUE(
        listen(kAudioObjectSystemObject, global(kAudioHardwarePropertyServiceRestarted), system));
    AudioObjectID previous = hal_->translateUIDToDevice("zdr_fixture_out");
    for (int i = 0; i < 10; ++i) {
        std::string error;
        ASSERT_TRUE(server_->restart(&error)) << error;
        ASSERT_TRUE(
            system.waitFor(kAudioObjectSystemObject, kAudioHardwarePropertyServiceRestarted))
            << "restart " << i;
        const AudioObjectID id = waitForUID("zdr_fixture_out");
        ASSERT_NE(id, kAudioObjectUnknown) << "restart " << i;
        ASSERT_NE(id, previous);
        previous = id;
    }
    EXPECT_EQ(deviceList().size(), 3u);
}

}  // namespace
}  // namespace zdr::hal
