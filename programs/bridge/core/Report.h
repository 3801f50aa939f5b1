#pragma once

#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "programs/bridge/core/Limits.h"
#include "programs/bridge/core/Rules.h"
#include "programs/bridge/core/ThreeWayMerge.h"

namespace tavix::bridge {

enum class Severity { kInfo, kWarning, kError };

// What a bridge counts, and the lines that it logs.
//
// Threads: one.
class Report {
 public:
  using Log = std::function<void(Severity, const std::string& line)>;

  // What is counted since the start. A plain value.
  struct Counters {
    unsigned long long sent = 0;         // messages that arrived there
    unsigned long long applied = 0;      // changes from outside
    unsigned long long overridden = 0;   // values that lost against the other end's
    unsigned long long refused = 0;      // documents and values that can't be taken, or that the other end did not take
    unsigned long long stale = 0;        // documents of a version that was already passed
    unsigned long long unsupported = 0;  // removals that an older daemon can't do
    unsigned long long leftOut = 0;      // groups beyond the limits
    unsigned long long retried = 0;      // writes that others got ahead of
  };

  Report(const Limits& limits, const Rules& rules, Log log) : _limits(limits), _rules(rules), _log(std::move(log)) {}

  // Logs and remembers it. The values of masked keys are not shown.
  void AddConflict(const Conflict& conflict);

  // Those that are not in "reported", what was there at the last attempt, which become its content.
  void AddConflicts(const std::vector<Conflict>& conflicts, std::vector<Conflict>& reported);

  void Info(const std::string& line) { _log(Severity::kInfo, line); }
  void Warn(const std::string& line) { _log(Severity::kWarning, line); }

  // It is the last error from now on.
  void Fail(const std::string& line);

  const std::string& GetLastError() const { return _lastError; }

  // The latest, oldest first; values of masked keys are not kept.
  const std::deque<Conflict>& GetConflicts() const { return _conflicts; }

  Counters counters;

 private:
  const Limits _limits;
  const Rules& _rules;
  const Log _log;
  std::deque<Conflict> _conflicts;
  std::string _lastError;
};

}  // namespace tavix::bridge
