#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "programs/server/persistence/DeferredLog.h"

namespace tavix::daemon {

// Notices that a sync hangs: a disk that does says nothing, and somebody else has to. Who looks is woken for the first
// sync after a rest alone, which costs less than to be told of each.
//
// Threads: any, one at a time.
class SyncWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // path: what messages name. log: outlives the watch.
  SyncWatch(const std::string& path, DeferredLog& log) : _quotedPath("'" + path + "'"), _log(log) {}

  // True when whoever looks has to be woken.
  [[nodiscard]] bool Begin(Clock::time_point now);
  [[nodiscard]] bool End();

  void Look(Clock::time_point now);

  // When to look; empty: not before somebody is woken.
  std::optional<Clock::time_point> GetNextLook() const { return _nextLook; }

 private:
  const std::string _quotedPath;
  DeferredLog& _log;
  std::optional<Clock::time_point> _began;  // of the sync that is under way
  std::optional<Clock::time_point> _nextLook;
  bool _wasTold = false;
};

}  // namespace tavix::daemon
