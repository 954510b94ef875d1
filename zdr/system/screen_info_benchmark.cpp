// Finding a screen again among four by its description.
#include <benchmark/benchmark.h>

#include "zdr/system/edid_test_support.h"
#include "zdr/system/screen_provider.h"

namespace {

std::shared_ptr<zdr::FixedScreenProvider> fourScreens() {
    std::vector<zdr::DisplayRecord> displays;
    for (std::uint32_t i = 0; i < 4; ++i) {
        zdr::DisplayRecord r;
        r.displayID = 100 + i;
        r.frame = {1920.0 * i, 0, 1920, 1080};
        r.outputName = "DP-" + std::to_string(i);
        r.edid = zdr::parseEdid(
            zdr::testing::EdidBuilder().manufacturer("DEL").serialNumber(1000 + i).build());
        displays.push_back(std::move(r));
    }
    return std::make_shared<zdr::FixedScreenProvider>(std::move(displays));
}

void BM_FindScreenMatchingInfo(benchmark::State& state) {
    auto provider = fourScreens();
    zdr::ScreenInfo wanted;
    wanted.serialNumber = 1003;  // the last one: every screen is compared
    for (auto _ : state) {
        benchmark::DoNotOptimize(zdr::Screen::findScreenMatchingInfo(*provider, wanted));
    }
}
BENCHMARK(BM_FindScreenMatchingInfo);

void BM_FindScreenWithCGDisplayId(benchmark::State& state) {
    auto provider = fourScreens();
    for (auto _ : state) {
        benchmark::DoNotOptimize(zdr::Screen::findScreenWithCGDisplayId(*provider, 103));
    }
}
BENCHMARK(BM_FindScreenWithCGDisplayId);

}  // namespace
