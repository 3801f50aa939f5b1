#pragma once

#include <stdarg.h>

// The C entry point of logging, for code that knows no logger objects.

#ifdef __cplusplus
extern "C" {
#endif

// Logs one message at a level (3 error, 4 warning, 5 notice, 6 information, 8 trace; printf-style). context: passed on
// to the host's sink untouched; the default sink, a logger named "core", ignores it. Any thread may call.
__attribute__((visibility("default"), format(printf, 3, 4))) void pelko_core_logging_log(void* context, int level,
                                                                                         const char* format, ...);

typedef void (*pelko_core_logging_sink)(void* context, int level, const char* format, va_list arguments);

// Sends every later message to the host's own sink; a null sink brings the default back.
__attribute__((visibility("default"))) void pelko_core_logging_set_sink(pelko_core_logging_sink sink);

#ifdef __cplusplus
}
#endif
