#pragma once

#include <chrono>
#include <string>

#include "programs/common/Signals.h"
#include "programs/server/options/Options.h"

namespace tavix::daemon {

class SettingsSources;

// Tells the log how the daemon starts and ends, at the level notice: its version, the files that it loads, where it
// keeps changes, where it listens; why it ends, and how long that took.
//
// Threads: one; after BeginEnd LogEnd may be called on another one.
// Errors:  as the log's.
class LifeLog {
 public:
  // options: outlive the object; their paths are those of the files themselves.
  explicit LifeLog(const Options& options);

  void LogLoaded(const SettingsSources& sources) const;
  void LogServing(const std::string& addresses, size_t groups) const;

  // The daemon was told to end. Then the log is told by what, which a disk that hangs may hold up.
  void BeginEnd() { _endsSince = Clock::now(); }
  void LogEnding(const programs::Signals::Signal& signal) const;

  // isSaved: whether the disk has all changes, if they are kept.
  void LogEnd(bool isSaved) const;

  // The daemon ends by a failure that standard error is told otherwise: where else the log goes.
  static void LogFailure(const LogOptions& log, const std::string& text);

 private:
  using Clock = std::chrono::steady_clock;

  const Options& _options;
  Clock::time_point _endsSince = Clock::now();
};

}  // namespace tavix::daemon
