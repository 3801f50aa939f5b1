#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "programs/bridge/core/Limits.h"

namespace tavix::bridge {

// Keeps a source that is suddenly empty from emptying the other end: losses of more than half of the mirrored groups,
// and of more than ten, at once are held until a person accepts them. "At once" is a window of time, as a source
// empties message by message.
//
// Threads: one.
class LossGuard {
 public:
  explicit LossGuard(const Limits& limits) : _limits(limits) {}

  // Groups that are to lose values now; all: how many are mirrored. Returns whether they may. Those that may are
  // remembered; those that may not are held.
  [[nodiscard]] bool Allow(const std::set<std::string>& groups, size_t all, Milliseconds now);

  // A group that is held loses nothing any more.
  void Release(const std::string& group);

  // The losses that are held now may happen, whenever they do.
  void Accept();

  const std::set<std::string>& GetHeld() const { return _held; }
  bool IsAccepted(const std::string& group) const { return _accepted.count(group) > 0; }

 private:
  void Forget(Milliseconds now);

  const Limits _limits;
  std::map<std::string, Milliseconds> _recent;  // groups that lost values, and when
  std::set<std::string> _held;
  std::set<std::string> _accepted;
};

}  // namespace tavix::bridge
