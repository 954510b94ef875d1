/* Logs through the C entry points from C code, as the C-based callers do. */
#include <stddef.h>

#include "zdr/logging/app_log.h"

void zdr_test_log_from_c(const char* loggerName) {
    __AppLog(1, "app says %d and %@", __func__, __FILE__, __LINE__, 42, "hi");
    __AppLogWith(loggerName, 1, "%s|%@|%5.2f|%x|%c|%%|%ld", __func__, __FILE__, __LINE__, "text",
                 "objc", 3.14159, 255u, 'z', 123456789L);
    __AppLogWith(loggerName, 1, "null: %@ %s", __func__, __FILE__, __LINE__, (const char*)NULL,
                 (const char*)NULL);
    __AppLogWith(loggerName, 4, "level four", __func__, __FILE__, __LINE__);
    __AppLogWith(loggerName, 5, "level five", __func__, __FILE__, __LINE__);
    __AppLogWith(loggerName, 0, "level zero", __func__, __FILE__, __LINE__);
    __AppLogWith(loggerName, 6, "level six", __func__, __FILE__, __LINE__);
}

void zdr_test_log_bad_formats_from_c(const char* loggerName) {
    int untouched = 7;
    __AppLogWith(loggerName, 1, "trailing %", __func__, __FILE__, __LINE__);
    __AppLogWith(loggerName, 1, "unknown %y here", __func__, __FILE__, __LINE__);
    __AppLogWith(loggerName, 1, "positional %1$d", __func__, __FILE__, __LINE__, 5);
    __AppLogWith(loggerName, 1, "count%n done", __func__, __FILE__, __LINE__, &untouched);
    __AppLogWith(loggerName, 1, "[%*d] [%-*s] [%.*s]", __func__, __FILE__, __LINE__, 4, 7, 3, "a",
                 2, "abcdef");
    __AppLogWith(loggerName, 1, "wide %99999999d", __func__, __FILE__, __LINE__, 1);
    __AppLogWith(NULL, 1, "no logger", __func__, __FILE__, __LINE__);
    __AppLogWith(loggerName, 1, NULL, __func__, NULL, __LINE__);
    __AppLog(1, "%s", NULL, NULL, 0, "null function and file");
    if (untouched != 7) __AppLogWith(loggerName, 1, "n was written", __func__, __FILE__, __LINE__);
}
