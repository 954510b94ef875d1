// Making devices the default and the put-back warning.
#include "zdr/audio/default_devices.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "zdr/audio/alert_presenter.h"
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"
#include "zdr/audio/detail/channel_log.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"
#include "zdr/runtime/user_defaults.h"

namespace zdr {
namespace {

using namespace hal;

class ScriptedAlerts : public AlertPresenter {
 public:
    explicit ScriptedAlerts(bool check) : check_(check) {}
    AlertResponse runModal(const AlertRequest& request) override {
        requests.push_back(request);
        return AlertResponse{check_};
    }
    std::vector<AlertRequest> requests;

 private:
    bool check_;
};

class DefaultDevices : public ::testing::Test {
 protected:
    static void SetUpTestSuite() {
        // UserDefaults::standard() lives in $XDG_CONFIG_HOME: keep it out of
        // the real home folder.
        static const std::string dir = [] {
            char pattern[] = "/tmp/zdr-default-devices-XXXXXX";
            const char* made = mkdtemp(pattern);
            return std::string(made != nullptr ? made : "/tmp");
        }();
        setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
    }
    void SetUp() override {
        detail::setChannelLogObserver(
            [this](const detail::ChannelLogRecord& r) { log_.push_back(r.message); });
    }
    void TearDown() override {
        detail::setChannelLogObserver(nullptr);
        AlertPresenter::install(nullptr);
    }
    AudioObjectID id(const std::string& uid) { return *hw_->objectIDForUID(uid); }

    std::shared_ptr<SimulatedAudioHardware> hw_ =
        std::make_shared<SimulatedAudioHardware>(SimulatedAudioHardware::defaultDesktop());
    CAHALAudioSystemObject system_{hw_};
    std::vector<std::string> log_;
};

TEST_F(DefaultDevices, MakesTheDeviceTheDefaultForItsSide) {
    makeDefaultAudioDevice(id("HDMI:DELL U2720Q:0"), "HDMI", false, hw_);
    EXPECT_EQ(system_.GetDefaultAudioDevice(false, false), id("HDMI:DELL U2720Q:0"));
    makeDefaultAudioDevice(id("ZDRAudioCapture:3"), "Capture", true, hw_);
    EXPECT_EQ(system_.GetDefaultAudioDevice(true, false), id("ZDRAudioCapture:3"));
    EXPECT_TRUE(log_.empty());
}

TEST_F(DefaultDevices, ZeroIDIsRefusedWithoutTouchingTheHardware) {
    const auto calls = hw_->callCount();
    makeDefaultAudioDevice(0, "Gone", false, hw_);
    makeDefaultAudioDevice(0, "Gone", true, hw_);
    EXPECT_EQ(hw_->callCount(), calls);
    ASSERT_EQ(log_.size(), 2u);
    EXPECT_EQ(log_[0], "We couldn't make Gone the default output device - the device ID is zero");
    EXPECT_EQ(log_[1], "We couldn't make Gone the default input device - the device ID is zero");
}

TEST_F(DefaultDevices, HardwareFailureIsLoggedAsAnAudioException) {
    hw_->failNextCall("", kAudioHardwarePropertyDefaultOutputDevice, kAudioHardwareNotRunningError);
    makeDefaultAudioDevice(id("HDMI:DELL U2720Q:0"), "HDMI", false, hw_);
    hw_->failNextCall("", kAudioHardwarePropertyDefaultInputDevice, kAudioHardwareNotRunningError);
    makeDefaultAudioDevice(id("ZDRAudioCapture:3"), "Capture", true, hw_);
    const std::string code = std::to_string(kAudioHardwareNotRunningError);
    ASSERT_EQ(log_.size(), 2u);
    EXPECT_EQ(log_[0],
              "Exception occured while attempting to set HDMI as the default output device. "
              "CoreAudio exception , code " +
                  code);
    EXPECT_EQ(log_[1],
              "Exception occurred while attempting to set Capture as the default input device. "
              "CoreAudio exception , code " +
                  code);
    EXPECT_NE(system_.GetDefaultAudioDevice(false, false), id("HDMI:DELL U2720Q:0"));
}

TEST_F(DefaultDevices, WarningStoresTheCheckBoxAndWithoutPresenterOnlyLogs) {
    auto defaults = UserDefaults::standard();
    defaults->removeObjectForKey(kDontShowPutBackOutputDeviceWarning);
    EXPECT_FALSE(showMakeDefaultWarning("Speakers", "err"));
    EXPECT_FALSE(defaults->objectForKey(kDontShowPutBackOutputDeviceWarning));
    ASSERT_EQ(log_.size(), 1u);

    auto alerts = std::make_shared<ScriptedAlerts>(true);
    AlertPresenter::install(alerts);
    EXPECT_TRUE(showMakeDefaultWarning("Speakers", "-10851"));
    ASSERT_EQ(alerts->requests.size(), 1u);
    const AlertRequest& r = alerts->requests[0];
    EXPECT_EQ(r.title, "Unable to restore sound setting");
    EXPECT_EQ(r.buttonText, "OK");
    EXPECT_EQ(r.suppressionCheckboxTitle, "Don't show this again");
    EXPECT_EQ(r.message,
              "Unable to set the default output device to Speakers (-10851).  If you don't hear "
              "sound any more please check your system preferences");
    EXPECT_TRUE(defaults->boolForKey(kDontShowPutBackOutputDeviceWarning));
    // Saved at once: a fresh store on the same file sees it.
    EXPECT_TRUE(UserDefaults(defaults->path()).boolForKey(kDontShowPutBackOutputDeviceWarning));

    AlertPresenter::install(std::make_shared<ScriptedAlerts>(false));
    showMakeDefaultWarning("Speakers", "-10851");
    ASSERT_TRUE(defaults->objectForKey(kDontShowPutBackOutputDeviceWarning));
    EXPECT_FALSE(UserDefaults(defaults->path()).boolForKey(kDontShowPutBackOutputDeviceWarning));
}

}  // namespace
}  // namespace zdr
