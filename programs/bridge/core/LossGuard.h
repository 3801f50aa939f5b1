#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "programs/bridge/core/Limits.h"

namespace tavix::bridge {

// Keeps a source that is suddenly empty from emptying the other end: losses of more than half of the mirrored groups,
// and of more than ten, at once are held until a person accepts them. "At once" is a sliding window of time, as a
// source empties message by message: those that come first happen, those that go beyond both bounds are held. What is
// held stays so behind the window. A restart of the bridge forgets the window, and judges all that differs as one.
//
// Threads: one.
class LossGuard {
 public:
  explicit LossGuard(const Limits& limits) : _limits(limits) {}

  // Groups that are to lose values now; all: how many are mirrored. Returns whether all of them may. Those that may are
  // remembered; those that may not are held.
  [[nodiscard]] bool Allow(const std::set<std::string>& groups, size_t all, Milliseconds now);

  // A group that is held loses nothing any more.
  void Release(const std::string& group);

  // The losses that are held now may happen, whenever they do.
  void Accept();

  const std::set<std::string>& GetHeld() const { return _held; }
  bool IsAccepted(const std::string& group) const { return _accepted.count(group) > 0; }

 private:
  struct Loss {
    Milliseconds when;
    size_t all;  // groups that were mirrored then, this one among them
  };

  void Forget(Milliseconds now);
  bool IsTooMuch(const std::set<std::string>& groups, size_t all) const;

  const Limits _limits;
  std::map<std::string, Loss> _recent;  // groups that lost values
  std::set<std::string> _held;
  std::set<std::string> _accepted;
};

}  // namespace tavix::bridge
