// uniquelyNumbered in a folder of N files against listing the same folder:
// the pattern is compiled once per call, so the ratio stays near 1.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zdr/system/file_numbering.h"

namespace {

namespace fs = std::filesystem;

// One folder per size for the whole run, half of its names numbered
// recordings and half other files; removed at exit.
const std::string& folderWith(long n) {
    struct Folders {
        std::map<long, std::string> paths;
        ~Folders() {
            for (auto& [n, path] : paths) {
                std::error_code ec;
                fs::remove_all(path, ec);
            }
        }
    };
    static Folders folders;
    auto& path = folders.paths[n];
    if (path.empty()) {
        char pattern[] = "/tmp/zdr-numbering-bench-XXXXXX";
        path = ::mkdtemp(pattern);
        for (long i = 0; i < n; ++i) {
            std::string name = i % 2 == 0 ? "Recording " + std::to_string(i + 1) + ".mov"
                                          : "Screenshot " + std::to_string(i) + ".png";
            std::ofstream(path + "/" + name);
        }
    }
    return path;
}

void BM_UniquelyNumbered(benchmark::State& state) {
    const std::string& folder = folderWith(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(zdr::uniquelyNumbered(folder, "Recording.mov"));
    }
}
BENCHMARK(BM_UniquelyNumbered)->Arg(100)->Arg(10000);

void BM_ReaddirBaseline(benchmark::State& state) {
    const std::string& folder = folderWith(state.range(0));
    for (auto _ : state) {
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
        std::vector<std::string> names;
        while (const dirent* entry = ::readdir(dir.get())) names.emplace_back(entry->d_name);
        benchmark::DoNotOptimize(names);
    }
}
BENCHMARK(BM_ReaddirBaseline)->Arg(100)->Arg(10000);

}  // namespace
