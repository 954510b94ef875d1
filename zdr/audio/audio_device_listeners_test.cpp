// Fan-out of hardware property changes: delegate, device and global listener
// closures (once each), the device's own reactions, listener installation.
#include <atomic>
#include <future>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/audio_device_internal.h"
#include "zdr/audio/audio_device_test_support.h"

namespace zdr {
namespace {

using namespace hal;
using testing::AudioDeviceTest;

class Listeners : public AudioDeviceTest {
 protected:
    struct Calls {
        std::mutex mutex;
        std::vector<std::pair<std::string, AudioObjectPropertySelector>> calls;
        std::atomic<int> offMain{0};
        AudioPropertyListenerBlock block(const std::string& tag) {
            return
                [this, tag](const std::shared_ptr<AudioDevice>& d, AudioObjectPropertySelector s) {
                    if (!DispatchQueue::isMainThread()) ++offMain;
                    std::lock_guard lock(mutex);
                    calls.emplace_back(tag + ":" + d->deviceUID(), s);
                };
        }
        std::size_t count() {
            std::lock_guard lock(mutex);
            return calls.size();
        }
    };
    // Closures run on a global queue: wait for the expected number.
    bool waitFor(Calls& c, std::size_t n) {
        return eventually([&] { return c.count() >= n; });
    }
    std::shared_ptr<AudioDevice> speakers() {
        return AudioDevice::deviceForCoreAudioUID(std::string(kSpeakers));
    }
};

struct RecordingDelegate : AudioDeviceDelegate {
    std::vector<Dictionary> changes;
    bool onMain = true;
    void propertyChangedOnDevice(const std::shared_ptr<AudioDevice>&,
                                 const Dictionary& info) override {
        onMain = onMain && DispatchQueue::isMainThread();
        changes.push_back(info);
    }
};

TEST_F(Listeners, DeviceAndGlobalClosuresHearTheirSelectorsOffTheMainThread) {
    auto dev = speakers();
    Calls calls;
    auto local =
        dev->addListenerForProperty(kAudioDevicePropertyVolumeScalar, calls.block("local"));
    auto global = AudioDevice::addGlobalListenerForProperties({kAudioDevicePropertyMute},
                                                              calls.block("global"));
    hw_->setVolume(kSpeakers, false, 1, 0.2f);  // volm (and vold) on element 1
    hw_->setMute(kSpeakers, false, 0, true);
    ASSERT_TRUE(waitFor(calls, 2));
    settle();
    std::sort(calls.calls.begin(), calls.calls.end());
    EXPECT_EQ(calls.calls, (std::vector<std::pair<std::string, AudioObjectPropertySelector>>{
                               {"global:BuiltInSpeakerDevice", kAudioDevicePropertyMute},
                               {"local:BuiltInSpeakerDevice", kAudioDevicePropertyVolumeScalar}}));
    EXPECT_EQ(calls.offMain.load(), 2);

    // Removed tokens hear nothing more; removing twice changes nothing.
    dev->removeListenerForToken(local);
    dev->removeListenerForToken(local);
    AudioDevice::removeGlobalListenerForToken(global);
    hw_->setVolume(kSpeakers, false, 1, 0.7f);
    hw_->setMute(kSpeakers, false, 0, false);
    settle();
    EXPECT_EQ(calls.count(), 2u);
}

TEST_F(Listeners, ATokenInBothListsIsCalledOncePerChange) {
    auto dev = speakers();
    Calls calls;
    auto token = dev->addListenerForProperty(kAudioDevicePropertyVolumeScalar, calls.block("t"));
    {
        // Put the very same token in the global list as well.
        std::lock_guard lock(detail::listenerLock());
        detail::audioDeviceClass().globalAllDevicePropertyListenerBlocks.push_back(token);
    }
    hw_->setVolume(kSpeakers, false, 0, 0.3f);
    ASSERT_TRUE(waitFor(calls, 1));
    settle();
    EXPECT_EQ(calls.count(), 1u);
    AudioDevice::removeGlobalListenerForToken(token);
}

TEST_F(Listeners, WildcardTokenHearsEverythingIncludingOverloadInAddressOrder) {
    auto dev = speakers();
    Calls calls;
    auto token =
        dev->addListenerForProperty(kAudioObjectPropertySelectorWildcard, calls.block("w"));
    auto delegate = std::make_shared<RecordingDelegate>();
    dev->setDelegate(delegate);
    const auto global = [](AudioObjectPropertySelector s) {
        return AudioObjectPropertyAddress{s, kAudioObjectPropertyScopeGlobal, 0};
    };
    hw_->raise(kSpeakers, {global(kAudioDevicePropertyLatency),
                           {kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeInput, 2},
                           global(kAudioDeviceProcessorOverload)});
    ASSERT_TRUE(waitFor(calls, 3));
    settle();
    // The delegate sees the three changes in address order, on the main queue.
    ASSERT_EQ(delegate->changes.size(), 3u);
    EXPECT_TRUE(delegate->onMain);
    EXPECT_EQ(*dictionaryValue<UInt32>(delegate->changes[0], kPropertyChangePropertyID),
              kAudioDevicePropertyLatency);
    EXPECT_EQ(*dictionaryValue<UInt32>(delegate->changes[1], kPropertyChangeChannelNumber), 2u);
    EXPECT_EQ(*dictionaryValue<std::uint8_t>(delegate->changes[1], kPropertyChangeIsInput), 1);
    EXPECT_EQ(*dictionaryValue<std::uint8_t>(delegate->changes[0], kPropertyChangeIsInput), 0);
    EXPECT_EQ(*dictionaryValue<UInt32>(delegate->changes[2], kPropertyChangePropertyID),
              kAudioDeviceProcessorOverload);
    EXPECT_EQ(calls.count(), 3u);
    // Overload is logged by the device's reaction, not as a property change.
    EXPECT_EQ(logsContaining("reports kAudioDeviceProcessorOverload").size(), 1u);
    EXPECT_TRUE(logsContaining("Property Changed: kAudioDeviceProcessorOverload").empty());
    EXPECT_EQ(logsContaining("Property Changed: kAudioDevicePropertyLatency").size(), 1u);
}

TEST_F(Listeners, AliveChangeOfALiveDeviceClearsTheCacheAndPostsNothing) {
    auto dev = speakers();
    dev->playbackChannelCount();
    ASSERT_TRUE(dev->haveCachedPropertyValueFor("playbackChannelCount"));
    clear();
    hw_->raise(kSpeakers,
               {{kAudioDevicePropertyDeviceIsAlive, kAudioObjectPropertyScopeGlobal, 0}});
    settle();
    EXPECT_FALSE(dev->haveCachedPropertyValueFor("playbackChannelCount"));
    EXPECT_EQ(countPosted(kAudioDriverDeviceGoneDead), 0u);
}

TEST_F(Listeners, StreamsChangeClearsTheCacheAndVolumeChangeAnnouncesKeys) {
    auto dev = speakers();
    dev->playbackChannelCount();
    int volumeAnnouncements = 0, recordVolumeAnnouncements = 0;
    auto a = dev->observe("volume", [&](const KeyChange&) { ++volumeAnnouncements; });
    auto b = dev->observe("recordVolume", [&](const KeyChange&) { ++recordVolumeAnnouncements; });
    hw_->raise(kSpeakers, {{kAudioDevicePropertyStreams, kAudioObjectPropertyScopeOutput, 0}});
    hw_->setVolume(kSpeakers, false, 0, 0.25f);
    settle();
    EXPECT_FALSE(dev->haveCachedPropertyValueFor("playbackChannelCount"));
    EXPECT_EQ(volumeAnnouncements, 1);
    EXPECT_EQ(recordVolumeAnnouncements, 1);
    b.reset();
    hw_->setVolume(kSpeakers, false, 0, 0.5f);
    settle();
    EXPECT_EQ(volumeAnnouncements, 2);
    EXPECT_EQ(recordVolumeAnnouncements, 1);
}

TEST_F(Listeners, AClosureMayRemoveItsOwnToken) {
    auto dev = speakers();
    std::atomic<int> called{0};
    std::shared_ptr<AudioPropertyListenerToken> token;
    std::mutex m;
    token = dev->addListenerForProperty(
        kAudioDevicePropertyMute,
        [&](const std::shared_ptr<AudioDevice>&, AudioObjectPropertySelector) {
            ++called;
            std::lock_guard lock(m);
            token->removeFromOwningDevice();
        });
    hw_->setMute(kSpeakers, false, 0, true);
    ASSERT_TRUE(eventually([&] { return called.load() == 1; }));
    hw_->setMute(kSpeakers, false, 0, false);
    settle();
    EXPECT_EQ(called.load(), 1);
}

TEST_F(Listeners, GlobalTokenIsRemovedOnlyThroughTheClassOrWhenFlagged) {
    Calls calls;
    auto token =
        AudioDevice::addGlobalListenerForProperties({kAudioDevicePropertyMute}, calls.block("g"));
    EXPECT_EQ(token->owningAudioDevice(), nullptr);
    token->removeFromOwningDevice();  // not flagged: stays registered
    speakers();
    hw_->setMute(kSpeakers, false, 0, true);
    ASSERT_TRUE(waitFor(calls, 1));
    token->setAppliesToAllDevices(true);
    token->removeFromOwningDevice();
    hw_->setMute(kSpeakers, false, 0, false);
    settle();
    EXPECT_EQ(calls.count(), 1u);
}

TEST_F(Listeners, InstallingTwiceIsQuietAndFailuresAreReported) {
    auto dev = speakers();
    hw_->failNextCall(kSpeakers, kAudioObjectPropertySelectorWildcard,
                      kAudioHardwareIllegalOperationError);
    dev->listenForNotifications();
    EXPECT_TRUE(dev->listenerInstalled());
    auto quiet = logsContaining("Probably already added for this device.");
    ASSERT_EQ(quiet.size(), 1u);
    EXPECT_EQ(quiet[0].level, detail::AudioLogLevel::verbose);

    dev->removeNotificationListener();
    EXPECT_FALSE(dev->listenerInstalled());
    hw_->failNextCall(kSpeakers, kAudioObjectPropertySelectorWildcard,
                      kAudioHardwareNotRunningError);
    dev->listenForNotifications();
    EXPECT_FALSE(dev->listenerInstalled());
    EXPECT_EQ(logsContaining("while adding notification listener").size(), 1u);
    EXPECT_EQ(logsContaining("It wont respond to changing audio devices.").size(), 1u);
}

TEST_F(Listeners, RemovingAfterTheServerDroppedTheListenerIsQuiet) {
    auto dev = speakers();
    // Hold the listener queue so the registry cannot re-bind the device (and
    // install a fresh listener) before the removal below runs.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    AudioDevice::notificationQueue().async([released] { released.wait(); });
    hw_->restartServer();  // device listeners are gone on the server's side
    dev->removeNotificationListener();
    // Read the outcome while the queue is still held: once it runs, the
    // re-bind rightly installs a new listener.
    const bool installedAfterRemoval = dev->listenerInstalled();
    const auto lines = logsContaining("Probably already removed for this device.");
    release.set_value();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, detail::AudioLogLevel::verbose);
    EXPECT_FALSE(installedAfterRemoval);
}

}  // namespace
}  // namespace zdr
