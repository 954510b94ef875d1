#include "zdr/logging/app_log.h"

#include <cstdarg>
#include <string>

#include "zdr/logging/detail/printf_format.h"
#include "zdr/logging/logging.h"
#include "zdr/logging/logging_bridge.h"

namespace {

void appLogV(const char* loggerName, long level, const char* format, const char* function,
             const char* file, int32_t line, va_list args) {
    if (loggerName == nullptr || format == nullptr) return;
    try {
        auto bridge = zdr::LoggingBridge::cachedLoggerForID(loggerName, true);
        if (!bridge) return;
        const auto& logger = bridge->logger();
        zdr::LogLevel mapped = zdr::logLevelFromInteger(level);
        // Formatting is the dear part, and a category that is off would drop
        // the text anyway: format only once the levels and the filter agree.
        if (!logger->shouldLog(mapped)) return;
        struct Context {
            const char* format;
            va_list args;
        } context{format, {}};
        va_copy(context.args, args);
        static const zdr::Dictionary kNoUserInfo;
        logger->logBuilt(mapped, function != nullptr ? function : "", file != nullptr ? file : "",
                         static_cast<int64_t>(line), &kNoUserInfo, &context,
                         [](void* c, std::string& out) {
                             auto* ctx = static_cast<Context*>(c);
                             zdr::detail::appendPrintf(out, ctx->format, ctx->args);
                         });
        va_end(context.args);
    } catch (...) {
        // A C caller cannot take an exception; the logging layer has already
        // reported what it could.
    }
}

}  // namespace

extern "C" void __AppLog(long level, const char* format, const char* function, const char* file,
                         int32_t line, ...) {
    va_list args;
    va_start(args, line);
    appLogV("app", level, format, function, file, line, args);
    va_end(args);
}

extern "C" void __AppLogWith(const char* loggerName, long level, const char* format,
                             const char* function, const char* file, int32_t line, ...) {
    va_list args;
    va_start(args, line);
    appLogV(loggerName, level, format, function, file, line, args);
    va_end(args);
}
