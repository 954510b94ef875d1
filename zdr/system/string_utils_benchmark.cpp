// removeNonAlphaNumerics on 1 KiB of mixed-script text (Latin with accents,
// Greek, Japanese, punctuation), with a byte copy of the same text as the
// floor.
#include <benchmark/benchmark.h>

#include <string>

#include "zdr/system/string_utils.h"

namespace {

std::string mixedText() {
    const std::string piece = "Take #2 — Café Zoë, Ελλάδα: 録画の日本語 (final!) ";
    std::string text;
    while (text.size() + piece.size() <= 1024) text += piece;
    while (text.size() < 1024) text += '.';
    return text;
}

void BM_RemoveNonAlphaNumerics(benchmark::State& state) {
    const std::string text = mixedText();
    for (auto _ : state) benchmark::DoNotOptimize(zdr::removeNonAlphaNumerics(text));
    state.SetBytesProcessed(static_cast<long>(state.iterations() * text.size()));
}
BENCHMARK(BM_RemoveNonAlphaNumerics);

void BM_CopyBaseline(benchmark::State& state) {
    const std::string text = mixedText();
    for (auto _ : state) {
        std::string copy = text;
        benchmark::DoNotOptimize(copy);
    }
    state.SetBytesProcessed(static_cast<long>(state.iterations() * text.size()));
}
BENCHMARK(BM_CopyBaseline);

}  // namespace
