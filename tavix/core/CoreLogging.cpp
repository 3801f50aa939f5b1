#include "tavix/core/CoreLogging.h"

#include <atomic>

#include "tavix/core/Logger.h"

namespace {

void LogToLogger(void*, int level, const char* format, va_list arguments) TAVIX_PRINTF(3, 0);

void LogToLogger(void*, int level, const char* format, va_list arguments) {
  static tavix::core::Logger* const logger = tavix::core::Logger::GetLogger("core");
  logger->LogMessageV(static_cast<tavix::core::LogLevel>(level), format, arguments);
}

std::atomic<pelko_core_logging_sink> g_sink{LogToLogger};

}  // namespace

extern "C" void pelko_core_logging_log(void* context, int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  g_sink.load()(context, level, format, arguments);
  va_end(arguments);
}

extern "C" void pelko_core_logging_set_sink(pelko_core_logging_sink sink) {
  g_sink.store(sink ? sink : LogToLogger);
}
