#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tavix/core/Logger.h"

namespace tavix::daemon {

// Log lines of threads that hold locks: whoever reads the log, and may not, must not hold up who waits for those. Kept
// until a thread that holds none writes them.
//
// Threads: any.
class DeferredLog {
 public:
  // logger: outlives the object.
  explicit DeferredLog(const core::Logger& logger) : _logger(logger) {}

  DeferredLog(const DeferredLog&) = delete;
  DeferredLog& operator=(const DeferredLog&) = delete;

  // Never throw. Without memory the line is lost.
  void AddError(const char* what, const char* why = "") { Add(true, what, why); }
  void AddWarning(const char* what, const char* why = "") { Add(false, what, why); }

  bool IsEmpty() const;

  // Everything so far, in its order. One thread at a time.
  void Write();

 private:
  struct Line {
    bool isError = false;
    std::string text;
  };

  void Add(bool isError, const char* what, const char* why);

  const core::Logger& _logger;
  mutable std::mutex _mutex;  // guards what follows
  std::vector<Line> _lines;
};

}  // namespace tavix::daemon
