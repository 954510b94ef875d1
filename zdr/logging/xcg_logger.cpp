#include "zdr/logging/xcg_logger.h"

#include <fmt/format.h>
#include <algorithm>
#include <chrono>
#include <exception>

#include "zdr/logging/console_destination.h"
#include "zdr/logging/detail/internal_log.h"

namespace zdr {

namespace detail {
struct LoggerConfig {
    std::vector<std::shared_ptr<FilterProtocol>> filters;
    // Split once here so the hot path does not ask every filter every time.
    std::vector<const FilterProtocol*> earlyFilters;
    std::vector<const FilterProtocol*> lateFilters;
    std::vector<std::shared_ptr<BaseDestination>> destinations;

    void split() {
        earlyFilters.clear();
        lateFilters.clear();
        for (const auto& f : filters) {
            (f->decidesBeforeMessage() ? earlyFilters : lateFilters).push_back(f.get());
        }
    }
};
}  // namespace detail

XCGLogger::XCGLogger(std::string identifier) : identifier_(std::move(identifier)) {
    publish(std::make_unique<detail::LoggerConfig>());
}

XCGLogger::~XCGLogger() = default;

std::shared_ptr<XCGLogger> XCGLogger::make(std::string identifier,
                                           bool includeDefaultDestinations) {
    auto logger = std::make_shared<XCGLogger>(std::move(identifier));
    if (includeDefaultDestinations) logger->add(std::make_shared<ConsoleDestination>());
    return logger;
}

const std::shared_ptr<XCGLogger>& XCGLogger::defaultLogger() {
    // Never destroyed: the host may log from its own static destructors.
    static const auto* logger =
        new std::shared_ptr<XCGLogger>(make(defaultInstanceIdentifier, true));
    return *logger;
}

void XCGLogger::publish(std::unique_ptr<detail::LoggerConfig> config) {
    // Caller holds configMutex_ (or is the constructor).
    const std::atomic<bool>* flag = nullptr;
    for (const auto& f : config->filters) {
        if ((flag = f->passFlag()) != nullptr) break;
    }
    config_.store(config.get(), std::memory_order_release);
    passFlag_.store(flag, std::memory_order_release);
    configs_.push_back(std::move(config));
}

std::vector<std::shared_ptr<FilterProtocol>> XCGLogger::filters() const {
    return config_.load(std::memory_order_acquire)->filters;
}

void XCGLogger::setFilters(std::vector<std::shared_ptr<FilterProtocol>> filters) {
    std::lock_guard lock(configMutex_);
    auto next = std::make_unique<detail::LoggerConfig>(*config_.load(std::memory_order_relaxed));
    filters.erase(std::remove(filters.begin(), filters.end(), nullptr), filters.end());
    next->filters = std::move(filters);
    next->split();
    publish(std::move(next));
}

bool XCGLogger::add(std::shared_ptr<BaseDestination> destination) {
    if (!destination) return false;
    std::lock_guard lock(configMutex_);
    const auto* current = config_.load(std::memory_order_relaxed);
    for (const auto& d : current->destinations) {
        if (d == destination) return false;
    }
    destination->setOwnerIdentifier(identifier_);
    auto next = std::make_unique<detail::LoggerConfig>(*current);
    next->destinations.push_back(std::move(destination));
    publish(std::move(next));
    return true;
}

std::shared_ptr<BaseDestination> XCGLogger::destination(std::string_view withIdentifier) const {
    for (const auto& d : config_.load(std::memory_order_acquire)->destinations) {
        if (d->identifier() == withIdentifier) return d;
    }
    return nullptr;
}

bool XCGLogger::remove(const std::shared_ptr<BaseDestination>& destination) {
    std::lock_guard lock(configMutex_);
    const auto* current = config_.load(std::memory_order_relaxed);
    auto next = std::make_unique<detail::LoggerConfig>(*current);
    auto& list = next->destinations;
    auto it = std::find(list.begin(), list.end(), destination);
    if (it == list.end()) return false;
    list.erase(it);
    publish(std::move(next));
    return true;
}

bool XCGLogger::removeDestination(std::string_view withIdentifier) {
    auto d = destination(withIdentifier);
    return d && remove(d);
}

std::vector<std::shared_ptr<BaseDestination>> XCGLogger::destinations() const {
    return config_.load(std::memory_order_acquire)->destinations;
}

void XCGLogger::logText(Level level, std::string_view functionName, std::string_view fileName,
                        long lineNumber, const Dictionary* userInfo, std::string_view message,
                        bool staticLocation) {
    logBuilt(
        level, functionName, fileName, lineNumber, userInfo, &message,
        [](void* context, std::string& out) {
            out.append(*static_cast<std::string_view*>(context));
        },
        staticLocation);
}

void XCGLogger::logFormat(Level level, const std::source_location& location,
                          fmt::string_view format, const fmt::format_args& args) {
    struct Context {
        fmt::string_view format;
        const fmt::format_args& args;
    } context{format, args};
    // A source location's names are static: their lengths are remembered for
    // the last call site of this thread instead of being measured every time.
    struct Lengths {
        const char* file = nullptr;
        std::size_t fileLength = 0;
        const char* function = nullptr;
        std::size_t functionLength = 0;
    };
    thread_local Lengths lengths;
    const char* file = location.file_name();
    const char* function = location.function_name();
    if (lengths.file != file) {
        lengths.fileLength = std::char_traits<char>::length(file);
        lengths.file = file;
    }
    if (lengths.function != function) {
        lengths.functionLength = std::char_traits<char>::length(function);
        lengths.function = function;
    }
    logBuilt(
        level, {function, lengths.functionLength}, {file, lengths.fileLength}, location.line(),
        nullptr, &context,
        [](void* c, std::string& out) {
            auto* ctx = static_cast<Context*>(c);
            // fmt's own buffer grows without zero-filling, unlike a
            // string; one copy at the end is cheaper.
            fmt::memory_buffer buffer;
            fmt::vformat_to(fmt::appender(buffer), ctx->format, ctx->args);
            out.append(buffer.data(), buffer.size());
        },
        true);
}

void XCGLogger::logBuilt(Level level, std::string_view functionName, std::string_view fileName,
                         long lineNumber, const Dictionary* userInfo, void* context,
                         MessageBuilder build, bool staticLocation) {
    if (!isEnabledFor(level)) return;
    const detail::LoggerConfig* config = config_.load(std::memory_order_acquire);
    bool anyDestination = false;
    for (const auto& d : config->destinations) {
        if (d->isEnabledFor(level)) {
            anyDestination = true;
            break;
        }
    }
    if (!anyDestination) return;

    // Every field is given: left to its default, the whole struct is first
    // block-cleared (rep stos), which costs more than the rest of the setup.
    LogDetails details{level,      staticLocation, std::chrono::system_clock::time_point{},
                       {},         functionName,   fileName,
                       lineNumber, userInfo};
    try {
        for (const FilterProtocol* f : config->earlyFilters) {
            if (f->shouldExclude(details, {})) return;
        }
    } catch (...) {
        detail::internalLog("Log filter failed on logger " + identifier_ + "; message dropped");
        return;
    }

    // A message closure may log itself; the inner call then needs a buffer
    // of its own rather than the one the outer call is filling.
    thread_local std::string buffer;
    thread_local int depth = 0;
    std::string nested;
    std::string& message = depth == 0 ? buffer : nested;
    ++depth;
    struct Leave {
        ~Leave() { --depth; }
    } leave;
    message.clear();
    try {
        build(context, message);
    } catch (const NoMessage&) {
        return;
    } catch (const std::exception& e) {
        detail::internalLog("Building a log message for " + identifier_ + " failed: " + e.what());
        return;
    } catch (...) {
        detail::internalLog("Building a log message for " + identifier_ + " failed");
        return;
    }
    details.date = std::chrono::system_clock::now();
    details.message = message;

    try {
        for (const FilterProtocol* f : config->lateFilters) {
            if (f->shouldExclude(details, message)) return;
        }
    } catch (...) {
        detail::internalLog("Log filter failed on logger " + identifier_ + "; message dropped");
        return;
    }
    for (const auto& d : config->destinations) {
        if (!d->isEnabledFor(level)) continue;
        try {
            d->process(details);
        } catch (const std::exception& e) {
            detail::internalLog("Log destination " + d->identifier() + " failed: " + e.what());
        } catch (...) {
            detail::internalLog("Log destination " + d->identifier() + " failed");
        }
    }
    if (&message == &buffer && buffer.capacity() > 64 * 1024) buffer = std::string();
}

}  // namespace zdr
