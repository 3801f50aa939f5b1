#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>

#include "programs/cli/commands/Context.h"
#include "tavix/core/IniFile.h"

namespace tavix::programs::cli {

// Keeps a copy of groups in step with the store, across lost connections: whatever still differs once there is one
// again is seen then.
//
// Threads: one.
// Errors:  the constructor throws what the session does; later losses are told and repaired.
class Follower {
 public:
  using Clock = std::chrono::steady_clock;
  using End = std::optional<Clock::time_point>;

  static bool HasCome(End end) { return end && Clock::now() >= *end; }

  // context: outlives this. Connects.
  Follower(Context& context, std::set<std::string> groups);

  const core::IniFile& GetSettings() const { return _settings; }

  // Waits until the copy may have changed. A file that does not parse is told; what it held before counts. False when
  // "end" has come; without one it waits for ever.
  bool AwaitChange(End end);

 private:
  void TakeOver(const Session::Notice& notice);
  bool ReconnectUntil(End end);

  Context& _context;
  const std::set<std::string> _groups;
  core::IniFile _settings;
};

}  // namespace tavix::programs::cli
