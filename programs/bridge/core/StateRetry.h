#pragma once

#include <optional>
#include <string>

#include "programs/bridge/core/Keys.h"
#include "programs/bridge/core/Report.h"

namespace tavix::bridge {

// What becomes of a mirror whose state can't be written, such as when the disk is full: it does nothing that would have
// to be kept, and tries again each ten seconds. The first failure and its end are logged.
//
// Threads: one.
class StateRetry {
 public:
  // report: outlives the object.
  explicit StateRetry(Report& report) : _report(report) {}

  // Whether the state may be written now.
  bool IsDue(Milliseconds now) const { return !_next || now >= *_next; }

  void OnFailed(const std::string& reason, Milliseconds now);
  void OnWritten();

  bool HasFailed() const { return _next.has_value(); }

  // The moment of the next try; nothing: the state can be written.
  std::optional<Milliseconds> GetNext() const { return _next; }

 private:
  Report& _report;
  std::optional<Milliseconds> _next;
};

}  // namespace tavix::bridge
