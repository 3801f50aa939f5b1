#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::server {

class SubscriptionBudget;
struct ServerEnv;

// Counts what one client has subscribed to, against its own bounds and those of all clients together.
//
// Threads: the handler's.
// Owns:    not the budget, which outlives it; what was taken from that goes back with the object.
class OwnSubscriptions {
 public:
  explicit OwnSubscriptions(const ServerEnv& env);
  ~OwnSubscriptions();

  OwnSubscriptions(const OwnSubscriptions&) = delete;
  OwnSubscriptions& operator=(const OwnSubscriptions&) = delete;

  // How many names and patterns they may be. 0: any number.
  size_t GetMax() const { return _max; }

  // Adds the new ones of "groups". Returns why that would pass a bound, and has added nothing then; else nothing.
  std::string Add(const std::set<std::string>& groups);

 private:
  size_t CountNew(const std::set<std::string>& groups, size_t& newBytes) const;

  const size_t _max;
  const size_t _maxBytes;
  SubscriptionBudget* const _budget;  // may be null
  common::GroupNameMatcher _known;
  size_t _bytes = 0;
};

}  // namespace tavix::settings::server
