// The status of the three targets outside a sandbox on X11 (a private Xvfb;
// no D-Bus at all)
// against the cheapest check it has to make: one stat of a video node.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "zdr/permissions/ask_permission.h"
#include "zdr/permissions/linux_permission_providers.h"
#include "zdr/testing/xvfb_fixture.h"

namespace {

namespace fs = std::filesystem;

struct ScratchDev {
    ScratchDev() {
        root = fs::temp_directory_path() / ("zdr-bench-root-" + std::to_string(::getpid()));
        fs::create_directories(root / "dev/snd");
        std::ofstream(root / "dev/video0") << "";
    }
    ~ScratchDev() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    fs::path root;
};

void BM_DetermineExistingPermissions(benchmark::State& state) {
    ScratchDev dev;
    zdr::testing::XvfbServer xvfb;
    std::string error;
    if (!xvfb.start(&error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    zdr::LinuxPermissionOptions options;
    options.root = dev.root;
    options.sessionType = "x11";
    options.display = xvfb.displayName();
    // An unreachable bus: any D-Bus call would fail slowly and show here.
    options.sessionBusAddress = "unix:path=" + (dev.root / "no-bus").string();
    zdr::PermissionProviders::install(std::make_shared<zdr::LinuxPermissionProviders>(options));
    for (auto _ : state) {
        auto responses = zdr::AskPermission::determineExistingPermissions();
        benchmark::DoNotOptimize(responses);
    }
    zdr::PermissionProviders::install(nullptr);
}
BENCHMARK(BM_DetermineExistingPermissions);

void BM_StatDevVideoBaseline(benchmark::State& state) {
    ScratchDev dev;
    const auto path = (dev.root / "dev/video0").string();
    for (auto _ : state) {
        struct stat st {};
        benchmark::DoNotOptimize(::stat(path.c_str(), &st));
    }
}
BENCHMARK(BM_StatDevVideoBaseline);

}  // namespace
