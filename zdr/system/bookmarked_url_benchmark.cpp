// Resolving a bookmark: unmoved (against one stat of the path) and renamed
// within its folder (found by handle or by the search).
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "zdr/system/bookmarked_url.h"

namespace {

namespace fs = std::filesystem;

struct Folder {
    std::string path;
    Folder() {
        char pattern[] = "/tmp/zdr-bookmark-bench-XXXXXX";
        path = ::mkdtemp(pattern);
        for (int i = 0; i < 50; ++i) std::ofstream(path + "/other " + std::to_string(i) + ".mov");
    }
    ~Folder() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

void BM_StatBaseline(benchmark::State& state) {
    Folder folder;
    const std::string file = folder.path + "/clip.mov";
    std::ofstream(file) << "x";
    for (auto _ : state) {
        struct stat st {};
        benchmark::DoNotOptimize(::stat(file.c_str(), &st));
    }
}
BENCHMARK(BM_StatBaseline);

void BM_ResolveBookmark_Unmoved(benchmark::State& state) {
    Folder folder;
    const std::string file = folder.path + "/clip.mov";
    std::ofstream(file) << "x";
    zdr::BookmarkedURL bookmark{fs::path(file)};
    for (auto _ : state) benchmark::DoNotOptimize(bookmark.resolveBookmark());
    if (bookmark.path() != file) state.SkipWithError("did not resolve to the file");
}
BENCHMARK(BM_ResolveBookmark_Unmoved);

void BM_ResolveBookmark_MovedInSameFolder(benchmark::State& state) {
    Folder folder;
    const std::string file = folder.path + "/clip.mov";
    std::ofstream(file) << "x";
    zdr::BookmarkedURL bookmark{fs::path(file)};
    fs::rename(file, folder.path + "/renamed.mov");
    for (auto _ : state) benchmark::DoNotOptimize(bookmark.resolveBookmark());
    if (bookmark.path() != folder.path + "/renamed.mov") {
        state.SkipWithError("did not resolve to the renamed file");
    }
}
BENCHMARK(BM_ResolveBookmark_MovedInSameFolder);

}  // namespace
