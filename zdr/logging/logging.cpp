#include "zdr/logging/logging.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <exception>
#include <utility>

#include "zdr/logging/detail/internal_log.h"
#include "zdr/logging/log_settings.h"
#include "zdr/logging/logging_bridge.h"
#include "zdr/logging/nslog_destination.h"
#include "zdr/logging/os_log_destination.h"
#include "zdr/logging/shared2.h"
#include "zdr/runtime/bundle.h"
#include "zdr/runtime/layer_log.h"

extern "C" {
const char* const kLoggingAudio = "audio";
const char* const kLoggingAudioProperties = "audioProperties";
const char* const kLoggingDebug = "debug";
const char* const kLoggingAppAudioCapture = "audioCapture";
const char* const kLoggingDeallocDebugging = "";
}

namespace zdr {

LogLevel logLevelFromInteger(long level) {
    switch (level) {
        case 1:
            return LogLevel::error;
        case 2:
            return LogLevel::warning;
        case 3:
            return LogLevel::info;
        case 4:
            return LogLevel::verbose;  // deliberately 4 verbose, 5 debug
        case 5:
            return LogLevel::debug;
        default:
            return LogLevel::none;
    }
}

namespace {

std::atomic<bool> gEnabled{true};
std::atomic<bool> gShowThreadNames{true};

struct SharedState {
    std::mutex mutex;
    std::shared_ptr<Logging> facade;
    std::optional<std::string> writeToFileNamed;
};
SharedState& sharedState() {
    static auto* state = new SharedState();  // lives for the process
    return *state;
}
// The facade whose table the filters mirror (raw: only compared, never used).
std::atomic<const Logging*> gCurrentFacade{nullptr};

// The filters read these cells instead of taking the facade's lock for every
// message: each write to the current facade's table updates its cell inside
// the same barrier, so the cell always says what the table says.
struct SwitchRegistry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<detail::CategorySwitch>, std::less<>> cells;

    detail::CategorySwitch& cellLocked(const std::string& id) {
        auto& cell = cells[id];
        if (!cell) cell = std::make_unique<detail::CategorySwitch>();
        return *cell;
    }
};
SwitchRegistry& switches() {
    static auto* registry = new SwitchRegistry();  // cells must outlive every filter
    return *registry;
}

// Recomputes the gate; caller holds the registry's mutex. `pending` is the
// number of switches still on their way once the caller's own has landed.
void updateGate(detail::CategorySwitch& cell, int pending) {
    bool on =
        cell.tableOn.load(std::memory_order_relaxed) && gEnabled.load(std::memory_order_relaxed);
    cell.pass.store(on || pending > 0, std::memory_order_release);
}

// A switch of the current facade is about to be submitted. Until its write
// has run, the inline gate sends every line of the category to the filter,
// which then takes a synchronous read of the table: a read that follows an
// asynchronous write on the same thread sees that write, so the thread that
// switched sees its own switch (a thread that logs right after switching a
// category on would otherwise lose that line).
void beginSwitch(const std::string& id) {
    auto& r = switches();
    std::lock_guard lock(r.mutex);
    auto& cell = r.cellLocked(id);
    int pending = cell.pending.fetch_add(1, std::memory_order_relaxed) + 1;
    updateGate(cell, pending);
}

// The write has run. `current`: it went to the facade the filters follow, so
// the cell takes its value. `counted`: beginSwitch() was called for it.
void endSwitch(const std::string& id, bool flag, bool current, bool counted) {
    auto& r = switches();
    std::lock_guard lock(r.mutex);
    auto& cell = r.cellLocked(id);
    if (current) cell.tableOn.store(flag, std::memory_order_relaxed);
    int pending = cell.pending.load(std::memory_order_relaxed) - (counted ? 1 : 0);
    updateGate(cell, pending);
    // Last, so that a filter that reads no pending switch also reads the
    // value stored above.
    if (counted) cell.pending.fetch_sub(1, std::memory_order_release);
}

std::string homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
    if (const passwd* pw = ::getpwuid(::getuid()); pw != nullptr && pw->pw_dir != nullptr) {
        return pw->pw_dir;
    }
    return "";
}

std::optional<std::string> applicationName() {
    Bundle& bundle = Bundle::main();
    if (auto name = bundle.displayName(); name && !name->empty()) return name;
    if (auto name = bundle.name(); name && !name->empty()) return name;
    return std::nullopt;
}

}  // namespace

namespace detail {
CategorySwitch& categorySwitch(const std::string& id) {
    auto& r = switches();
    std::lock_guard lock(r.mutex);
    return r.cellLocked(id);
}
}  // namespace detail

// ---- The facade ----

namespace {
// The runtime and timing layers sit below logging and write their lines
// through this, each to its category logger.
void writeLayerLine(std::string_view category, int level, std::string_view message,
                    std::string_view function, std::string_view file, long line) {
    auto logger = category == "timing" ? Shared2::timing() : Shared2::general();
    logger->logln(message, logLevelFromInteger(level), function, file, line);
}
}  // namespace

std::shared_ptr<Logging> Logging::shared() {
    static std::once_flag once;
    std::call_once(once, [] {
        auto& state = sharedState();
        std::optional<std::string> path;
        if (auto name = applicationName()) {
            path = suggestedLogFilePath(*name, std::chrono::system_clock::now(), homeDirectory());
        }
        auto facade = std::make_shared<Logging>();
        setLayerLogWriter(&writeLayerLine);
        {
            std::lock_guard lock(state.mutex);
            state.writeToFileNamed = std::move(path);
            if (!state.facade) {  // a facade set before first use stays
                state.facade = facade;
                gCurrentFacade.store(facade.get(), std::memory_order_release);
            }
        }
        // The default logger is not a category: no filter, so the on/off
        // table does not apply to it.
        facade->setupLogger(XCGLogger::defaultLogger(), LogLevel::debug);
        if (const char* text = std::getenv("ZDR_LOG"); text != nullptr && *text != '\0') {
            std::string problem;
            if (!applyLogSettings(*facade, text, &problem)) {
                detail::internalLog("ZDR_LOG: " + problem);
            }
        }
    });
    auto& state = sharedState();
    std::lock_guard lock(state.mutex);
    return state.facade;
}

void Logging::setShared(std::shared_ptr<Logging> facade) {
    if (!facade) return;
    (void)shared();  // first-use set-up happens once, whoever comes first
    auto& state = sharedState();
    {
        std::lock_guard lock(state.mutex);
        state.facade = facade;
        gCurrentFacade.store(facade.get(), std::memory_order_release);
    }
    facade->syncSwitchesFromTable();
}

void Logging::syncSwitchesFromTable() {
    // Reads after every write submitted so far; later writes see that this
    // facade is current and update the cells themselves.
    auto table = stateLock_.read([this] { return loggingEnabled_; });
    auto& r = switches();
    std::lock_guard lock(r.mutex);
    for (const auto& [id, on] : table) r.cellLocked(id);
    for (auto& [id, cell] : r.cells) {
        auto it = table.find(id);
        bool on = it != table.end() && it->second;
        cell->tableOn.store(on, std::memory_order_relaxed);
        updateGate(*cell, cell->pending.load(std::memory_order_relaxed));
    }
}

bool Logging::enabled() { return gEnabled.load(std::memory_order_acquire); }

void Logging::setEnabled(bool on) {
    auto& r = switches();
    std::lock_guard lock(r.mutex);
    gEnabled.store(on, std::memory_order_release);
    for (auto& [id, cell] : r.cells) {
        updateGate(*cell, cell->pending.load(std::memory_order_relaxed));
    }
}

bool Logging::showThreadNames() { return gShowThreadNames.load(std::memory_order_relaxed); }
void Logging::setShowThreadNames(bool on) { gShowThreadNames.store(on, std::memory_order_relaxed); }

std::optional<std::string> Logging::writeToFileNamed() {
    (void)shared();
    auto& state = sharedState();
    std::lock_guard lock(state.mutex);
    return state.writeToFileNamed;
}

void Logging::setWriteToFileNamed(std::optional<std::string> path) {
    (void)shared();
    auto& state = sharedState();
    std::lock_guard lock(state.mutex);
    state.writeToFileNamed = std::move(path);
}

std::string Logging::suggestedLogFilePath(const std::string& applicationName,
                                          std::chrono::system_clock::time_point now,
                                          const std::string& homeDirectory) {
    std::time_t t = std::chrono::system_clock::to_time_t(now);
    std::tm tm{};
    localtime_r(&t, &tm);
    char date[32] = {};
    std::strftime(date, sizeof date, "%Y-%m-%d %H-%M-%S", &tm);
    std::string path = "~/Library/Logs/" + applicationName + "_" + date + ".log";
    // Every "~", as a shell would not: the name itself may carry one.
    std::string result;
    for (char c : path) {
        if (c == '~') {
            result += homeDirectory;
        } else {
            result += c;
        }
    }
    return result;
}

std::shared_ptr<XCGLogger> Logging::loggerWithID(const std::string& id, bool) {
    if (auto bridge = LoggingBridge::cachedLoggerForID(id, false)) return bridge->logger();
    // Two threads asking for a new identifier at once may each make a logger;
    // the later registration wins and the earlier caller keeps its own.
    auto logger = std::make_shared<XCGLogger>(id);
    logger->setFilters({std::make_shared<LogFilter>(id)});
    auto facade = shared();
    facade->setupLogger(logger, LogLevel::error);
    if (auto level = facade->configuredLevel(id)) {
        logger->setOutputLevel(*level);
        for (const auto& d : logger->destinations()) d->setOutputLevel(*level);
    }
    LoggingBridge::setCacheLoggerSync(id, logger);
    return logger;
}

// ---- Throttled channels ----

namespace {
struct Channels {
    std::mutex mutex;  // so that any thread may send, not only the main one
    std::map<std::string, std::shared_ptr<PassthroughSubject<LogLine>>> publishers;
};
Channels& channels() {
    static auto* c = new Channels();
    return *c;
}
}  // namespace

std::shared_ptr<PassthroughSubject<LogLine>> Logging::publisher(const std::string& name) {
    auto& c = channels();
    std::lock_guard lock(c.mutex);
    auto& subject = c.publishers[name];
    if (!subject) subject = PassthroughSubject<LogLine>::make();
    return subject;
}

void Logging::sendLog(const std::string& name, const std::string& message, const char* function,
                      const char* file, long line) {
    publisher(name)->send(LogLine{name + ":" + message, function != nullptr ? function : "",
                                  file != nullptr ? file : "", line});
}

AnyCancellable Logging::receiveThrottled(const std::string& name, double time,
                                         std::function<void(const LogLine&)> receiver) {
    return publisher(name)
        ->throttle(time, DispatchQueue::main(), /*latest=*/true)
        ->sink(std::move(receiver));
}

void Logging::receiveThrottledFrom(const std::string& name, double,
                                   std::shared_ptr<XCGLogger> logger, LogLevel atLevel) {
    if (!logger) return;
    // One second whatever the caller asked: the existing callers pass
    // intervals meant for other uses, and one line a second reads well.
    auto cancellable = receiveThrottled(name, 1.0, [logger, atLevel](const LogLine& line) {
        logger->logln(atLevel, line.function, line.file, line.line, Dictionary{},
                      [&line]() -> const std::string& { return line.message; });
    });
    auto facade = shared();
    std::lock_guard lock(facade->subscriptionsMutex_);
    facade->subscriptions_.insert(std::move(cancellable));
}

// ---- Instance operations ----

Logging::Logging() = default;
Logging::~Logging() = default;

void Logging::setupLogger(const std::shared_ptr<XCGLogger>& logger, LogLevel outputLevel) {
    if (!logger) return;
    logger->setOutputLevel(outputLevel);
    bool showThreads = showThreadNames();
    std::shared_ptr<BaseDestination> destination;
    if (OSLogDestination::journalAvailable()) {
        destination = std::make_shared<OSLogDestination>(logger->identifier());
    } else {
        destination = std::make_shared<NSLogDestination>(logger->identifier());
    }
    destination->setShowLogIdentifier(false);
    destination->setShowFunctionName(true);
    destination->setShowThreadName(showThreads);
    destination->setShowLevel(true);
    destination->setShowFileName(true);
    destination->setShowLineNumber(true);
    destination->setShowDate(true);  // both destinations pin their own value
    destination->setOutputLevel(outputLevel);
    logger->add(std::move(destination));
}

bool Logging::isLoggingEnabled(const std::string& forLog) const {
    if (!enabled()) return false;
    return stateLock_.read([&] {
        auto it = loggingEnabled_.find(forLog);
        return it != loggingEnabled_.end() && it->second;
    });
}

void Logging::loggingEnabled(const std::string& log, bool flag) {
    std::weak_ptr<Logging> weak = weak_from_this();
    const bool counted = gCurrentFacade.load(std::memory_order_acquire) == this;
    if (counted) beginSwitch(log);
    stateLock_.asyncWrite([weak, log, flag, counted] {
        auto self = weak.lock();
        if (self) self->loggingEnabled_[log] = flag;
        bool current = self && gCurrentFacade.load(std::memory_order_acquire) == self.get();
        if (current || counted) endSwitch(log, flag, current, counted);
    });
}

void Logging::loggingEnabled(const std::shared_ptr<XCGLogger>& log, bool flag) {
    if (log) loggingEnabled(log->identifier(), flag);
}

void Logging::iterateLoggers(
    const std::function<void(const std::shared_ptr<XCGLogger>&, bool)>& body) const {
    for (const auto& id : LoggingBridge::loggerKeys()) {
        auto bridge = LoggingBridge::cachedLoggerForID(id, false);
        if (!bridge) {
            detail::internalLog("No cached logger with id: " + id);
            continue;
        }
        bool on = isLoggingEnabled(id);
        try {
            body(bridge->logger(), on);
        } catch (const std::exception& e) {
            detail::internalLog(std::string("Error iterating loggers: ") + e.what());
        } catch (...) {
            detail::internalLog("Error iterating loggers: unknown exception");
        }
    }
}

void Logging::disableAllLoggers() {
    iterateLoggers(
        [this](const std::shared_ptr<XCGLogger>& logger, bool) { loggingEnabled(logger, false); });
}

std::optional<LogLevel> Logging::configuredLevel(const std::string& id) const {
    std::lock_guard lock(levelsMutex_);
    auto it = configuredLevels_.find(id);
    if (it == configuredLevels_.end()) return std::nullopt;
    return it->second;
}

void Logging::setConfiguredLevel(const std::string& id, LogLevel level) {
    std::lock_guard lock(levelsMutex_);
    configuredLevels_[id] = level;
}

// ---- LogFilter ----

Logging::LogFilter::LogFilter(std::string id)
    : id_(std::move(id)), switch_(&detail::categorySwitch(id_)) {}

bool Logging::LogFilter::shouldExclude(const LogDetails&, std::string_view) const {
    if (!switch_->pass.load(std::memory_order_acquire)) return true;
    if (switch_->pending.load(std::memory_order_acquire) == 0) {
        return !(switch_->tableOn.load(std::memory_order_relaxed) && Logging::enabled());
    }
    // A switch is on its way: the table itself answers, after every write
    // submitted so far (this thread's own included).
    return !Logging::shared()->isLoggingEnabled(id_);
}

std::string Logging::LogFilter::debugDescription() const { return "Log filter for: " + id_; }

}  // namespace zdr
