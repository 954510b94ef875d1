#include "zdr/logging/logging_bridge.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

#include "zdr/logging/app_log.h"
#include "zdr/logging/console_destination.h"
#include "zdr/logging/logging.h"
#include "zdr/timing/dispatch_lock.h"

namespace zdr {

namespace {

struct Cache {
    DispatchLock lock{"Logging Bridge"};
    std::map<std::string, std::shared_ptr<LoggingBridge>> loggerCache;  // only inside lock
};

Cache& cache() {
    // Never destroyed: loggers may be used from static destructors of the
    // host, and the cache lives for the process anyway.
    static Cache* c = new Cache();
    return *c;
}

}  // namespace

LoggingBridge::LoggingBridge(std::string name, std::shared_ptr<XCGLogger> logger)
    : name_(std::move(name)), logger_(std::move(logger)) {}

std::string LoggingBridge::name() const {
    std::lock_guard lock(nameMutex_);
    return name_;
}

void LoggingBridge::setName(std::string name) {
    std::lock_guard lock(nameMutex_);
    name_ = std::move(name);
}

std::vector<std::string> LoggingBridge::loggerKeys() {
    Cache& c = cache();
    return c.lock.read([&] {
        std::vector<std::string> keys;
        keys.reserve(c.loggerCache.size());
        for (const auto& entry : c.loggerCache) keys.push_back(entry.first);
        return keys;
    });
}

std::shared_ptr<LoggingBridge> LoggingBridge::cachedLoggerForID(const std::string& id,
                                                                bool create) {
    Cache& c = cache();
    auto found = c.lock.read([&]() -> std::shared_ptr<LoggingBridge> {
        auto it = c.loggerCache.find(id);
        return it == c.loggerCache.end() ? nullptr : it->second;
    });
    if (found || !create) return found;

    // loggerWithID registers the logger synchronously when it makes one; the
    // second registration below replaces that bridge with one holding the
    // same logger, without making the caller wait for it.
    auto logger = Logging::loggerWithID(id);
    auto bridge = std::make_shared<LoggingBridge>(id, logger);
    c.lock.asyncWrite([&c, id, bridge] {
        c.loggerCache[id] = bridge;
        setupBridgedLoggerDestination(bridge->logger(), LogLevel::error);
    });
    return bridge;
}

void LoggingBridge::setCacheLoggerSync(const std::string& id, std::shared_ptr<XCGLogger> logger) {
    Cache& c = cache();
    auto bridge = std::make_shared<LoggingBridge>(id, std::move(logger));
    c.lock.syncWrite([&] {
        c.loggerCache[id] = bridge;
        setupBridgedLoggerDestination(bridge->logger(), LogLevel::error);
    });
}

void LoggingBridge::setupBridgedLoggerDestination(const std::shared_ptr<XCGLogger>& logger,
                                                  LogLevel level) {
    if (!logger) return;
    auto destination = logger->destination(XCGLogger::baseConsoleDestinationIdentifier);
    auto* console = dynamic_cast<ConsoleDestination*>(destination.get());
    if (console == nullptr) return;
    console->setShowLogIdentifier(true);
    console->setShowFunctionName(true);
    console->setShowThreadName(true);
    console->setShowLevel(true);
    console->setShowFileName(true);
    console->setShowLineNumber(true);
    console->setShowDate(true);
    console->setOutputLevel(level);
}

void LoggingBridge::setupKnownLoggers(bool setToInfo) {
    const LogLevel level = setToInfo ? LogLevel::info : LogLevel::error;
    for (const char* id : {kLoggingAudio, kLoggingAudioProperties, kLoggingDebug,
                           kLoggingAppAudioCapture, kLoggingDeallocDebugging}) {
        if (auto bridge = cachedLoggerForID(id, true)) bridge->logger()->setOutputLevel(level);
    }
}

std::shared_ptr<LoggingBridge> LoggingBridge::audio() {
    auto bridge = cachedLoggerForID("audio", true);
    if (!bridge) {
        std::fprintf(
            stderr,
            "ZDRShared2/LoggingBridge:30: Fatal error: Bad! Cannot instantiate logger: audio\n");
        std::abort();
    }
    return bridge;
}

bool LoggingBridge::isLoggingEnabled(long level, const std::string& loggerName) {
    auto bridge = cachedLoggerForID(loggerName, true);
    if (!bridge) return false;
    // Deliberately the bare comparison: `none` (the highest level) answers
    // true, and neither the category switch nor the master switch is asked.
    return logLevelFromInteger(level) >= bridge->logger()->outputLevel();
}

void LoggingBridge::__old_log(long level, const std::string& loggerName, const std::string& msg,
                              const std::string& file, long line, const std::string& function) {
    auto bridge = cachedLoggerForID(loggerName, true);
    if (!bridge) return;
    bridge->logger()->logln(logLevelFromInteger(level), function, file, line, Dictionary{},
                            [&msg]() -> const std::string& { return msg; });
}

}  // namespace zdr
