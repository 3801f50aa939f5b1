#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "programs/server/persistence/DeferredLog.h"

namespace tavix::daemon {

// Reports a disk that hangs in a sync, or in the write of a large change: the call that hangs reports nothing, so
// another thread has to look.
//
// In order: Begin and End enclose each piece of work, of which there is one at a time. The other thread calls Look no
// earlier than GetNextLook. The first look that finds work which takes too long adds a warning to the log, and the end
// of that work adds another. To wake the looking thread costs more than a sync on a fast disk: it is woken for the
// first work after a rest alone, and then looks again and again as long as there is work.
//
// Threads: any, one at a time.
class SyncWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // path: what messages name. limit: work that takes longer is reported. log: outlives the watch.
  SyncWatch(const std::string& path, Clock::duration limit, DeferredLog& log)
      : _quotedPath("'" + path + "'"), _limit(limit), _log(log) {}

  // True when the thread that looks has to be woken.
  [[nodiscard]] bool Begin(Clock::time_point now);
  [[nodiscard]] bool End();

  void Look(Clock::time_point now);

  // When to look; empty: not before the thread is woken.
  std::optional<Clock::time_point> GetNextLook() const { return _nextLook; }

 private:
  const std::string _quotedPath;
  const Clock::duration _limit;
  DeferredLog& _log;
  std::optional<Clock::time_point> _began;  // of the work that is under way
  std::optional<Clock::time_point> _nextLook;
  bool _isReported = false;  // that it takes too long
};

}  // namespace tavix::daemon
