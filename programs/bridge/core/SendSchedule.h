#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "programs/bridge/core/Limits.h"

namespace tavix::bridge {

// Which groups wait to be sent, and which one may be sent now: one message of a group at a time and one each 200 ms, of
// all groups ten a second and fifty beyond that, twenty on their way. Names wait, not values: what a group holds is
// read when it is sent, so that a group that changes a thousand times meanwhile is sent once. Those that wait longest
// come first.
//
// Threads: one.
class SendSchedule {
 public:
  explicit SendSchedule(const Limits& limits);

  // A group that waits already keeps its place. notBefore: as a retry asks for it.
  void Add(const std::string& group, Milliseconds notBefore = Milliseconds(0));

  void Remove(const std::string& group);

  // Takes a group that may be looked at now; nothing: there is none. What is taken either goes on its way, or costs
  // nothing.
  std::optional<std::string> Take(Milliseconds now);

  // A message of the group left.
  void OnSent(const std::string& group, Milliseconds now);

  // The message arrived, or never will.
  void OnDone(const std::string& group);

  // No message is on its way any more.
  void OnLost();

  // The earliest moment at which Take may return a group; nothing: something else must happen first.
  std::optional<Milliseconds> GetNext(Milliseconds now) const;

  size_t CountWaiting() const { return _waiting.size(); }
  size_t CountInFlight() const { return _inFlight.size(); }
  bool IsWaiting(const std::string& group) const { return _places.count(group) > 0; }
  bool IsInFlight(const std::string& group) const { return _inFlight.count(group) > 0; }
  bool IsIdle() const { return _waiting.empty() && _inFlight.empty(); }

 private:
  // In the order in which they began to wait.
  struct Waiting {
    std::string group;
    Milliseconds notBefore;
  };
  using Number = unsigned long long;

  Milliseconds GetGroupTime(const Waiting& waiting) const;
  Milliseconds GetDeviceTime(Milliseconds now) const;

  const Limits _limits;
  Number _lastNumber = 0;
  std::map<Number, Waiting> _waiting;
  std::map<std::string, Number> _places;
  std::set<std::string> _inFlight;
  std::map<std::string, Milliseconds> _lastSent;

  // The budget of all groups as one moment: that at which all of the burst is there again.
  Milliseconds _fullAt{0};
};

}  // namespace tavix::bridge
