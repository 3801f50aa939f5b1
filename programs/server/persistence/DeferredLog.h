#pragma once

#include <string>
#include <vector>

#include "tavix/core/Logger.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// Log lines of threads that hold locks. A log may wait for its reader, and those who wait for the locks would wait for
// the same reader: so lines are kept until a thread that holds no lock writes them.
//
// Threads: any.
class DeferredLog {
 public:
  // logger: outlives the object.
  explicit DeferredLog(const core::Logger& logger) : _logger(logger) {}

  DeferredLog(const DeferredLog&) = delete;
  DeferredLog& operator=(const DeferredLog&) = delete;

  // Never throw. Without memory the line is lost.
  void AddError(const char* what, const char* why = "") TAVIX_EXCLUDES(_mutex) { Add(true, what, why); }
  void AddWarning(const char* what, const char* why = "") TAVIX_EXCLUDES(_mutex) { Add(false, what, why); }

  bool IsEmpty() const TAVIX_EXCLUDES(_mutex);

  // Everything so far, in its order. One thread at a time.
  void Write() TAVIX_EXCLUDES(_mutex);

 private:
  struct Line {
    bool isError = false;
    std::string text;
  };

  void Add(bool isError, const char* what, const char* why) TAVIX_EXCLUDES(_mutex);

  const core::Logger& _logger;
  mutable osa::PlainMutex _mutex;
  std::vector<Line> _lines TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::daemon
