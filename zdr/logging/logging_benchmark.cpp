// Speed of the log calls against spdlog in the same run. Read the ratios:
//   BM_Log_BelowLevel / BM_Spdlog_FilteredOut            (a level check)
//   BM_Log_CategoryOff / BM_Spdlog_FilteredOut           (the category filter)
//   BM_Log_EnabledNullDestination / BM_Spdlog_NullSink   (a full line, discarded)
// spdlog's null sink never formats its pattern; BM_Spdlog_FormattingNullSink
// formats date, level, thread, file:line and function as our line does, then
// discards it, for a like-for-like figure.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include "zdr/logging/app_log.h"
#include "zdr/logging/logging.h"
#include "zdr/logging/os_log_destination.h"
#include "zdr/logging/shared2.h"

namespace {

using zdr::LogLevel;

class NullDestination : public zdr::BaseQueuedDestination {
 public:
    using BaseQueuedDestination::BaseQueuedDestination;
    void write(std::string_view message) override { benchmark::DoNotOptimize(message.data()); }
};

// A category logger as the facade makes it, with the journal destination
// swapped for one that discards the formatted line.
std::shared_ptr<zdr::XCGLogger> categoryLogger(const std::string& id, LogLevel level, bool on) {
    auto logger = zdr::Logging::loggerWithID(id);
    for (const auto& d : logger->destinations()) logger->remove(d);
    auto null = std::make_shared<NullDestination>(id);
    null->setShowThreadName(true);
    null->setOutputLevel(level);
    logger->add(null);
    logger->setOutputLevel(level);
    zdr::Logging::shared()->loggingEnabled(id, on);
    (void)zdr::Logging::shared()->isLoggingEnabled(id);  // waits for the switch
    return logger;
}

std::shared_ptr<spdlog::logger> spdlogLogger(spdlog::level::level_enum level) {
    auto logger =
        std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(level);
    return logger;
}

void BM_Spdlog_FilteredOut(benchmark::State& state) {
    auto logger = spdlogLogger(spdlog::level::err);
    int i = 0;
    for (auto _ : state) logger->debug("value {}", ++i);
}
BENCHMARK(BM_Spdlog_FilteredOut);

void BM_Log_BelowLevel(benchmark::State& state) {
    auto logger = categoryLogger("bench.below", LogLevel::error, true);
    int i = 0;
    for (auto _ : state) logger->debug("value {}", ++i);
}
BENCHMARK(BM_Log_BelowLevel);

void BM_Log_BelowLevel_Shared2(benchmark::State& state) {
    (void)zdr::Shared2::audio();  // made before timing; output level error
    int i = 0;
    for (auto _ : state) zdr::Shared2::audio()->debug("value {}", ++i);
}
BENCHMARK(BM_Log_BelowLevel_Shared2);

void BM_Log_CategoryOff(benchmark::State& state) {
    auto logger = categoryLogger("bench.off", LogLevel::error, false);
    int i = 0;
    for (auto _ : state) logger->error("value {}", ++i);
}
BENCHMARK(BM_Log_CategoryOff);

void BM_Spdlog_NullSink(benchmark::State& state) {
    auto logger = spdlogLogger(spdlog::level::info);
    int i = 0;
    for (auto _ : state) logger->info("value {}", ++i);
}
BENCHMARK(BM_Spdlog_NullSink);

class FormattingNullSink : public spdlog::sinks::base_sink<std::mutex> {
 protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        spdlog::memory_buf_t line;
        formatter_->format(msg, line);
        benchmark::DoNotOptimize(line.data());
    }
    void flush_() override {}
};

void BM_Spdlog_FormattingNullSink(benchmark::State& state) {
    auto logger = std::make_shared<spdlog::logger>("bench", std::make_shared<FormattingNullSink>());
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] [%t] [%s:%#] %! > %v");
    logger->set_level(spdlog::level::info);
    int i = 0;
    for (auto _ : state) {
        logger->log(spdlog::source_loc{__FILE__, __LINE__, static_cast<const char*>(__func__)},
                    spdlog::level::info, "value {}", ++i);
    }
}
BENCHMARK(BM_Spdlog_FormattingNullSink);

void BM_Log_EnabledNullDestination(benchmark::State& state) {
    auto logger = categoryLogger("bench.null", LogLevel::info, true);
    int i = 0;
    for (auto _ : state) logger->info("value {}", ++i);
}
BENCHMARK(BM_Log_EnabledNullDestination);

void BM_AppLog_CategoryOff(benchmark::State& state) {
    categoryLogger("bench.c.off", LogLevel::error, false);
    int i = 0;
    for (auto _ : state) {
        __AppLogWith("bench.c.off", 1, "value %d", __func__, __FILE__, __LINE__, ++i);
    }
}
BENCHMARK(BM_AppLog_CategoryOff);

}  // namespace
