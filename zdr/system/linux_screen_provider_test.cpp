#include "zdr/system/linux_screen_provider.h"

#include <gtest/gtest.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "zdr/system/edid_test_support.h"
#include "zdr/testing/xvfb_fixture.h"

// Xlib's macros (None, Bool, Status) clash with GoogleTest's names: last.
// clang-format off
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>
// clang-format on

namespace zdr {
namespace {

using testing::EdidBuilder;
namespace fs = std::filesystem;

// Changes the Xvfb server's RandR state as a display change would: EDID on
// the output, extra monitors, the primary output.
class XvfbDisplay {
 public:
    explicit XvfbDisplay(const std::string& name) : display_(XOpenDisplay(name.c_str())) {}
    ~XvfbDisplay() {
        if (display_) XCloseDisplay(display_);
    }
    bool ok() const { return display_ != nullptr; }
    Window root() const { return DefaultRootWindow(display_); }
    RROutput firstOutput() {
        XRRScreenResources* res = XRRGetScreenResourcesCurrent(display_, root());
        RROutput out = res && res->noutput > 0 ? res->outputs[0] : None;
        if (res) XRRFreeScreenResources(res);
        return out;
    }
    void setEdid(const std::vector<std::uint8_t>& bytes) {
        const Atom edid = XInternAtom(display_, RR_PROPERTY_RANDR_EDID, False);
        XRRChangeOutputProperty(display_, firstOutput(), edid, XA_INTEGER, 8, PropModeReplace,
                                bytes.data(), static_cast<int>(bytes.size()));
        XSync(display_, False);
    }
    Atom addMonitor(const char* name, int x, int y, int width, int height) {
        XRRMonitorInfo* m = XRRAllocateMonitor(display_, 0);
        m->name = XInternAtom(display_, name, False);
        m->x = x;
        m->y = y;
        m->width = width;
        m->height = height;
        m->mwidth = width / 4;
        m->mheight = height / 4;
        XRRSetMonitor(display_, root(), m);
        const Atom atom = m->name;
        XRRFreeMonitors(m);
        XSync(display_, False);
        return atom;
    }
    void makeOutputPrimary() {
        XRRSetOutputPrimary(display_, root(), firstOutput());
        XSync(display_, False);
    }

 private:
    Display* display_;
};

class X11ScreensTest : public testing::XvfbTest {
 protected:
    testing::XvfbServer::Options serverOptions() const override {
        testing::XvfbServer::Options o;
        o.screens = {"1280x800x24"};
        return o;
    }
};

TEST_F(X11ScreensTest, OneOutputWithoutEdid) {
    auto provider = std::make_shared<X11ScreenProvider>(server().displayName());
    const auto screens = provider->screens();
    ASSERT_EQ(screens.size(), 1u);
    EXPECT_EQ(screens[0]->frame(), (Rect{0, 0, 1280, 800}));
    EXPECT_NE(screens[0]->displayID(), 0u);
    EXPECT_EQ(screens[0]->humanReadableDescription(),
              "screen 0, <unknown colorspace>, {{0, 0}, {1280, 800}}");
    EXPECT_EQ(provider->displaySerialNumber(screens[0]->displayID()), 0u);
    EXPECT_EQ(Screen::findScreenWithCGDisplayId(*provider, screens[0]->displayID())->frame(),
              screens[0]->frame());
}

TEST_F(X11ScreensTest, ReadsTheOutputsEdidAndRefusesABrokenOne) {
    XvfbDisplay x(server().displayName());
    ASSERT_TRUE(x.ok());
    x.setEdid(EdidBuilder()
                  .manufacturer("GSM")
                  .productCode(0x5B7F)
                  .serialNumber(0x0001E240)
                  .sRGBDefault(true)
                  .build());
    auto provider = std::make_shared<X11ScreenProvider>(server().displayName());
    auto screen = provider->screens().at(0);
    EXPECT_EQ(screen->serialNumber(), 0x0001E240u);
    EXPECT_EQ(screen->modelNumber(), 0x5B7Fu);
    EXPECT_EQ(screen->vendorNumber(), 0x1E6Du);  // "GSM"
    EXPECT_EQ(screen->colorSpaceName(), "sRGB");
    const ScreenInfo info(*screen);
    EXPECT_EQ(Screen::findScreenMatchingInfo(*provider, info)->displayID(), screen->displayID());

    auto corrupt = EdidBuilder().manufacturer("GSM").serialNumber(99).build();
    corrupt[127] ^= 0xFF;
    x.setEdid(corrupt);
    screen = provider->screens().at(0);
    EXPECT_EQ(screen->serialNumber(), 0u);
    EXPECT_EQ(screen->colorSpaceName(), std::nullopt);
    x.setEdid({0x00, 0xFF, 0xFF});  // short
    EXPECT_EQ(provider->screens().at(0)->serialNumber(), 0u);
}

TEST_F(X11ScreensTest, MonitorsInOrderWithThePrimaryFirst) {
    XvfbDisplay x(server().displayName());
    ASSERT_TRUE(x.ok());
    const Atom left = x.addMonitor("LEFT", 0, 0, 640, 800);
    const Atom right = x.addMonitor("RIGHT", 640, 0, 640, 800);
    auto provider = std::make_shared<X11ScreenProvider>(server().displayName());
    auto screens = provider->screens();
    ASSERT_EQ(screens.size(), 3u);
    std::vector<Rect> frames;
    for (const auto& s : screens) frames.push_back(s->frame());
    EXPECT_NE(std::find(frames.begin(), frames.end(), Rect{640, 0, 640, 800}), frames.end());
    EXPECT_EQ(
        Screen::findScreenWithCGDisplayId(*provider, static_cast<std::uint32_t>(left))->frame(),
        (Rect{0, 0, 640, 800}));
    EXPECT_EQ(std::any_cast<std::string>(
                  Screen::findScreenWithCGDisplayId(*provider, static_cast<std::uint32_t>(right))
                      ->deviceDescription()
                      .at(kZDRScreenOutputName)),
              "RIGHT");

    x.makeOutputPrimary();
    screens = provider->screens();
    ASSERT_EQ(screens.size(), 3u);
    EXPECT_EQ(screens[0]->frame(), (Rect{0, 0, 1280, 800})) << "the primary comes first";
    EXPECT_EQ(screens[0]->humanReadableDescription().rfind("screen 0, ", 0), 0u);
    EXPECT_EQ(screens[2]->humanReadableDescription().rfind("screen 2, ", 0), 0u);
}

class TwoXScreensTest : public testing::XvfbTest {
 protected:
    testing::XvfbServer::Options serverOptions() const override {
        testing::XvfbServer::Options o;
        o.screens = {"1024x768x24", "800x600x24"};
        return o;
    }
};

TEST_F(TwoXScreensTest, EveryXScreenContributes) {
    auto provider = std::make_shared<X11ScreenProvider>(server().displayName());
    const auto screens = provider->screens();
    ASSERT_EQ(screens.size(), 2u);
    EXPECT_EQ(screens[0]->frame(), (Rect{0, 0, 1024, 768}));
    EXPECT_EQ(screens[1]->frame(), (Rect{0, 0, 800, 600}));
    EXPECT_NE(screens[0]->displayID(), screens[1]->displayID());
}

TEST_F(X11ScreensTest, AServerThatIsGoneGivesNoScreens) {
    const std::string name = server().displayName();
    auto provider = std::make_shared<X11ScreenProvider>(name);
    ASSERT_EQ(provider->screens().size(), 1u);
    server().crashKeepingDisplay();
    EXPECT_EQ(provider->query(), std::nullopt);
    EXPECT_TRUE(provider->screens().empty());
    EXPECT_EQ(Screen::findScreenWithCGDisplayId(*provider, 1), nullptr);
    server().stop();
}

TEST_F(X11ScreensTest, AServerDyingWhileQueriedDoesNotStopTheProcess) {
    auto provider = std::make_shared<X11ScreenProvider>(server().displayName());
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::thread querying([&] {
#if defined(__SANITIZE_ADDRESS__)
        // Xlib and its extensions cannot free what they had allocated for a
        // connection that breaks under them; only this thread's queries are
        // left out of the leak check.
        __lsan_disable();
#endif
        while (!stop) {
            provider->screens();
            ++rounds;
        }
#if defined(__SANITIZE_ADDRESS__)
        __lsan_enable();
#endif
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (rounds < 5 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    server().crashKeepingDisplay();  // mid-query, most likely
    const int seen = rounds;
    while (rounds < seen + 5 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stop = true;
    querying.join();
    EXPECT_GE(rounds, seen + 5);
    EXPECT_TRUE(provider->screens().empty());
    server().stop();
}

TEST(X11ScreenProviderTest, ARefusedDisplayIsNoScreens) {
    X11ScreenProvider provider(std::string(":59999"));
    EXPECT_EQ(provider.query(), std::nullopt);
    EXPECT_TRUE(provider.screens().empty());
}

class DrmScreensTest : public ::testing::Test {
 protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "zdr-drm-XXXXXX").string();
        root_ = ::mkdtemp(pattern.data());
    }
    void TearDown() override { fs::remove_all(root_); }
    void connector(const std::string& name, const std::string& status,
                   const std::vector<std::uint8_t>& edid, const std::string& modes,
                   std::optional<int> id) {
        const fs::path dir = fs::path(root_) / name;
        fs::create_directories(dir);
        std::ofstream(dir / "status") << status << "\n";
        std::ofstream(dir / "edid", std::ios::binary)
            .write(reinterpret_cast<const char*>(edid.data()), std::streamsize(edid.size()));
        std::ofstream(dir / "modes") << modes;
        if (id) std::ofstream(dir / "connector_id") << *id << "\n";
    }
    std::string root_;
};

TEST_F(DrmScreensTest, ConnectedConnectorsWithTheirEdid) {
    fs::create_directories(fs::path(root_) / "card0");  // the GPU, not a connector
    fs::create_directories(fs::path(root_) / "renderD128");
    connector("card0-HDMI-A-1", "connected",
              EdidBuilder().manufacturer("SAM").serialNumber(1234).productCode(77).build(),
              "3840x2160\n1920x1080\n", 95);
    connector("card0-DP-1", "disconnected", {}, "", 97);
    connector("card0-eDP-1", "connected",
              EdidBuilder().manufacturer("AUO").serialNumber(0).sRGBDefault(true).build(),
              "2560x1600\n", std::nullopt);
    auto broken = EdidBuilder().manufacturer("BNQ").build();
    broken.resize(100);
    connector("card1-VGA-1", "connected", broken, "garbage\n", 12);

    auto provider = std::make_shared<DrmScreenProvider>(root_);
    const auto screens = provider->screens();
    ASSERT_EQ(screens.size(), 3u);
    // Name order: card0-HDMI-A-1, card0-eDP-1, card1-VGA-1.
    EXPECT_EQ(screens[0]->displayID(), 95u);
    EXPECT_EQ(screens[0]->frame(), (Rect{0, 0, 3840, 2160}));
    EXPECT_EQ(screens[0]->serialNumber(), 1234u);
    EXPECT_EQ(screens[0]->modelNumber(), 77u);
    EXPECT_EQ(std::any_cast<std::string>(screens[0]->deviceDescription().at(kZDRScreenOutputName)),
              "HDMI-A-1");
    EXPECT_EQ(screens[1]->colorSpaceName(), "sRGB");
    EXPECT_EQ(screens[2]->displayID(), 12u);
    EXPECT_EQ(screens[2]->frame(), Rect{});
    EXPECT_EQ(screens[2]->serialNumber(), 0u) << "a short EDID gives no numbers";
    EXPECT_EQ(screens[2]->colorSpaceName(), std::nullopt);
}

TEST(DrmScreenProviderTest, NoFolderNoScreens) {
    auto provider = std::make_shared<DrmScreenProvider>("/nonexistent/drm");
    EXPECT_TRUE(provider->screens().empty());
}

}  // namespace
}  // namespace zdr
