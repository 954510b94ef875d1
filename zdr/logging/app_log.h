/* C-callable logging for code that is not C++ (and for C++ code that prefers
 * printf-style formats): the entry points __AppLog and __AppLogWith, and the
 * names of the well-known loggers.
 *
 * Levels are integers: 1 error, 2 warning, 3 info, 4 verbose, 5 debug; any
 * other value means "none", which nothing prints.
 *
 * Formats follow printf (flags, width, precision, the length modifiers and
 * conversions d i u o x X c s p f F e E g G a A %%), plus %@, which takes a
 * NUL-terminated UTF-8 string (const char*), as %s does. A null pointer for %s
 * or %@ prints "(null)". %n is refused (it consumes its argument and writes
 * nothing), positional arguments (%1$d) and unknown conversions are copied to
 * the message as text. As with printf, the caller must pass one argument of
 * the right type for every conversion: the arguments cannot be counted, and a
 * format with more conversions than arguments is undefined behaviour. Never
 * pass text from outside as the format; log it with "%s".
 *
 * The message is formatted only when the logger would write it: a call for a
 * category that is switched off costs a cache look-up and no formatting.
 *
 * Threads: any. Both functions return without waiting for any output device.
 */
#ifndef ZDR_LOGGING_APP_LOG_H
#define ZDR_LOGGING_APP_LOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Names of well-known loggers. kLoggingDeallocDebugging is deliberately the
 * empty string: it still names a logger, the one with the empty identifier. */
extern const char* const kLoggingAudio;            /* "audio" */
extern const char* const kLoggingAudioProperties;  /* "audioProperties" */
extern const char* const kLoggingDebug;            /* "debug" */
extern const char* const kLoggingAppAudioCapture;  /* "audioCapture" */
extern const char* const kLoggingDeallocDebugging; /* "" */

/* Logs to the logger named "app". `function` and `file` are NUL-terminated
 * UTF-8 strings (null is read as empty). */
void __AppLog(long level, const char* format, const char* function, const char* file, int32_t line,
              ...);

/* Logs to the logger named `loggerName` (created on first use, switched off
 * until the host switches it on). A null name or format logs nothing. */
void __AppLogWith(const char* loggerName, long level, const char* format, const char* function,
                  const char* file, int32_t line, ...);

#ifdef __cplusplus
}
#endif

#endif /* ZDR_LOGGING_APP_LOG_H */
