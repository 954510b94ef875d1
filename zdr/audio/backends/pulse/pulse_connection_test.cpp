#include "zdr/audio/backends/pulse/detail/pulse_connection.h"

#include <gtest/gtest.h>
#include <pulse/volume.h>

#include <algorithm>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "zdr/testing/pulse_server_fixture.h"

namespace zdr::detail {
namespace {

using namespace std::chrono_literals;
using Type = PulseEvent::Type;

// Collects events and lets the test wait for one that matches.
class EventLog {
 public:
    void add(const PulseEvent& e) {
        {
            std::lock_guard lock(mutex_);
            events_.push_back(e);
        }
        cv_.notify_all();
    }
    template <class Pred>
    std::optional<PulseEvent> waitFor(Pred pred, std::chrono::milliseconds timeout = 5000ms) {
        std::unique_lock lock(mutex_);
        std::optional<PulseEvent> found;
        cv_.wait_for(lock, timeout, [&] {
            for (size_t i = seen_; i < events_.size(); ++i) {
                if (pred(events_[i])) {
                    found = events_[i];
                    seen_ = i + 1;
                    return true;
                }
            }
            return false;
        });
        return found;
    }
    size_t count(Type t) {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(
            std::count_if(events_.begin(), events_.end(), [&](auto& e) { return e.type == t; }));
    }

 private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<PulseEvent> events_;
    size_t seen_ = 0;
};

class PulseConnectionTest : public zdr::testing::PulseServerTest {
 protected:
    void SetUp() override {
        PulseServerTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        PulseConnection::Options options;
        options.server = server_->serverString();
        options.callTimeout = 500ms;
        connection_ =
            PulseConnection::create(options, [this](const PulseEvent& e) { log_.add(e); });
        ASSERT_TRUE(connection_->waitUntilSynced(5000ms));
    }
    void TearDown() override {
        if (connection_) connection_->shutdown();
        PulseServerTest::TearDown();
    }

    EventLog log_;
    std::shared_ptr<PulseConnection> connection_;
};

TEST_F(PulseConnectionTest, MirrorsSinksSourcesAndMonitors) {
    auto sink = connection_->deviceByName(PulseDeviceKind::sink, "zdr_fixture_out");
    ASSERT_TRUE(sink);
    EXPECT_EQ(sink->description, "Fixture_Output");
    EXPECT_EQ(sink->uid, "zdr_fixture_out");
    EXPECT_GT(sink->rate, 0u);
    EXPECT_EQ(sink->channels, sink->volume.size());
    auto monitor = connection_->deviceByName(PulseDeviceKind::source, "zdr_fixture_out.monitor");
    ASSERT_TRUE(monitor);
    EXPECT_TRUE(monitor->isMonitor);
    auto input = connection_->deviceByName(PulseDeviceKind::source, "zdr_fixture_in");
    ASSERT_TRUE(input);
    EXPECT_FALSE(input->isMonitor);
    EXPECT_EQ(connection_->devices().size(), 3u);
    EXPECT_EQ(connection_->serverInfo().defaultSinkName, "zdr_fixture_out");
    // Object IDs are ours and distinct even where the server's indices collide.
    EXPECT_NE(sink->objectID, monitor->objectID);
    EXPECT_EQ(sink->index, monitor->index);
}

TEST_F(PulseConnectionTest, PlugAndUnplugGiveNewIDs) {
    auto module = server_->loadNullSink("plugged", "Plugged", "zdr.uid=plug-uid");
    ASSERT_TRUE(module);
    auto added = log_.waitFor([](auto& e) {
        return e.type == Type::deviceAdded && e.after->kind == PulseDeviceKind::sink;
    });
    ASSERT_TRUE(added);
    EXPECT_EQ(added->after->uid, "plug-uid");
    EXPECT_EQ(added->after->description, "Plugged");
    const uint32_t firstID = added->after->objectID;

    ASSERT_TRUE(server_->unloadModule(*module));
    auto removed = log_.waitFor(
        [&](auto& e) { return e.type == Type::deviceRemoved && e.before->objectID == firstID; });
    ASSERT_TRUE(removed);
    EXPECT_FALSE(connection_->deviceByUID("plug-uid"));

    ASSERT_TRUE(server_->loadNullSink("plugged", "Plugged", "zdr.uid=plug-uid"));
    auto again = log_.waitFor(
        [](auto& e) { return e.type == Type::deviceAdded && e.after->uid == "plug-uid"; });
    ASSERT_TRUE(again);
    EXPECT_NE(again->after->objectID, firstID);
}

TEST_F(PulseConnectionTest, ExternalVolumeMuteAndDefaultChangesAreReported) {
    auto sink = connection_->deviceByName(PulseDeviceKind::sink, "zdr_fixture_out");
    ASSERT_TRUE(sink);
    ASSERT_TRUE(server_->pactl({"set-sink-volume", "zdr_fixture_out", "50%"}));
    auto vol = log_.waitFor([&](auto& e) {
        return e.type == Type::deviceChanged && e.after->objectID == sink->objectID &&
               e.after->volume != e.before->volume;
    });
    ASSERT_TRUE(vol);
    EXPECT_NEAR(vol->after->volume[0], PA_VOLUME_NORM / 2, 2);

    ASSERT_TRUE(server_->pactl({"set-sink-mute", "zdr_fixture_out", "1"}));
    auto mute = log_.waitFor(
        [&](auto& e) { return e.type == Type::deviceChanged && e.after->mute && !e.before->mute; });
    ASSERT_TRUE(mute);

    ASSERT_TRUE(server_->loadNullSink("second"));
    ASSERT_TRUE(server_->pactl({"set-default-sink", "second"}));
    auto def = log_.waitFor([](auto& e) {
        return e.type == Type::serverChanged && e.serverAfter.defaultSinkName == "second";
    });
    ASSERT_TRUE(def);
    EXPECT_EQ(def->serverBefore.defaultSinkName, "zdr_fixture_out");
}

TEST_F(PulseConnectionTest, WritesReachTheServerAndShowAtOnce) {
    auto sink = connection_->deviceByName(PulseDeviceKind::sink, "zdr_fixture_out");
    ASSERT_TRUE(sink);
    std::vector<uint32_t> quarter(sink->channels, PA_VOLUME_NORM / 4);
    ASSERT_EQ(connection_->setVolume(sink->objectID, quarter), PulseCallResult::ok);
    EXPECT_EQ(connection_->device(sink->objectID)->volume, quarter);
    ASSERT_EQ(connection_->setMute(sink->objectID, true), PulseCallResult::ok);
    EXPECT_TRUE(connection_->device(sink->objectID)->mute);
    std::string out;
    ASSERT_TRUE(server_->pactl({"get-sink-mute", "zdr_fixture_out"}, &out));
    EXPECT_NE(out.find("yes"), std::string::npos);

    auto input = connection_->deviceByName(PulseDeviceKind::source, "zdr_fixture_in");
    ASSERT_EQ(connection_->setDefault(input->objectID), PulseCallResult::ok);
    EXPECT_EQ(connection_->serverInfo().defaultSourceName, "zdr_fixture_in");
    ASSERT_TRUE(server_->pactl({"get-default-source"}, &out));
    EXPECT_NE(out.find("zdr_fixture_in"), std::string::npos);

    // The server refuses a port that does not exist; the snapshot keeps its word.
    EXPECT_EQ(connection_->setPort(sink->objectID, "no-such-port"), PulseCallResult::failed);
    EXPECT_EQ(connection_->setVolume(0xdead, quarter), PulseCallResult::notConnected);
}

TEST_F(PulseConnectionTest, LoadAndUnloadModuleThroughTheConnection) {
    PulseCallResult result;
    auto index = connection_->loadModule("module-null-sink", "sink_name=via_conn", &result);
    ASSERT_TRUE(index) << toString(result);
    EXPECT_TRUE(log_.waitFor(
        [](auto& e) { return e.type == Type::deviceAdded && e.after->name == "via_conn"; }));
    EXPECT_TRUE(connection_->deviceByName(PulseDeviceKind::sink, "via_conn"));
    ASSERT_EQ(connection_->unloadModule(*index), PulseCallResult::ok);
    EXPECT_TRUE(log_.waitFor(
        [](auto& e) { return e.type == Type::deviceRemoved && e.before->name == "via_conn"; }));
    EXPECT_FALSE(connection_->deviceByName(PulseDeviceKind::sink, "via_conn"));
    EXPECT_EQ(connection_->roundTrip(), PulseCallResult::ok);
    EXPECT_FALSE(connection_->loadModule("module-does-not-exist", "", &result));
    EXPECT_EQ(result, PulseCallResult::failed);
}

TEST_F(PulseConnectionTest, ServerRestartReconnectsWithNewIDs) {
    const uint32_t oldID =
        connection_->deviceByName(PulseDeviceKind::sink, "zdr_fixture_out")->objectID;
    std::string error;
    ASSERT_TRUE(server_->restart(&error)) << error;
    auto lost = log_.waitFor([](auto& e) { return e.type == Type::disconnected; });
    ASSERT_TRUE(lost);
    EXPECT_EQ(lost->removed.size(), 3u);
    auto back = log_.waitFor([](auto& e) { return e.type == Type::connected && e.reconnected; });
    ASSERT_TRUE(back);
    auto sink = connection_->deviceByName(PulseDeviceKind::sink, "zdr_fixture_out");
    ASSERT_TRUE(sink);
    EXPECT_NE(sink->objectID, oldID);
    EXPECT_EQ(connection_->generation(), 2u);
}

TEST_F(PulseConnectionTest, HangingServerAnswersWithinTheTimeout) {
    auto sink = connection_->deviceByName(PulseDeviceKind::sink, "zdr_fixture_out");
    server_->suspend();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(connection_->setMute(sink->objectID, true), PulseCallResult::timedOut);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, 3000ms);  // generous: the timeout is 500 ms
    // Reads still answer from the snapshot.
    EXPECT_TRUE(connection_->device(sink->objectID));
    server_->resume();
    EXPECT_EQ(connection_->setMute(sink->objectID, false), PulseCallResult::ok);
}

TEST(PulseConnectionNoServer, KeepsRetryingUntilAServerAppears) {
    if (!zdr::testing::PulseServerFixture::pulseaudioBinary()) GTEST_SKIP() << "no pulseaudio";
    zdr::testing::PulseServerFixture server;
    PulseConnection::Options options;
    options.server = server.serverString();
    options.maxRetryDelay = 100ms;
    EventLog log;
    auto connection = PulseConnection::create(options, [&](const PulseEvent& e) { log.add(e); });
    EXPECT_FALSE(connection->synced());
    EXPECT_EQ(connection->setMute(1, true), PulseCallResult::notConnected);
    std::string error;
    ASSERT_TRUE(server.start(&error)) << error;
    ASSERT_TRUE(connection->waitUntilSynced(5000ms));
    auto first = log.waitFor([](auto& e) { return e.type == Type::connected; });
    ASSERT_TRUE(first);
    EXPECT_FALSE(first->reconnected);
    connection->shutdown();
}

}  // namespace
}  // namespace zdr::detail
