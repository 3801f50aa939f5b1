#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/common/PatternIndex.h"
#include "tavix/settings/common/Subscriptions.h"

namespace tavix::settings::common {

// A change of few groups, whose subscribers are found within microseconds and then called. One object serves many
// changes, one after the other, and keeps its memory for the next.
//
// Threads: one at a time, and nobody subscribes meanwhile.
class SmallChange {
 public:
  static bool IsSmall(const std::set<std::string>& changedGroups);

  // Finds the subscribers of a small change. False: it would take too long.
  bool Match(const Subscriptions& subscriptions, const std::set<std::string>& changedGroups);

  // Calls those that were found, in ascending order of their addresses. What one throws ends the round.
  void CallAll(const std::set<std::string>& changedGroups, const core::IniFile& settings) const;

  // How many patterns the last Match compared with names of groups.
  size_t GetTried() const { return _tried; }

 private:
  using Groups = uint32_t;  // one bit for each, by its position among the changed groups

  void Unite();

  PatternIndex::Search _search;
  std::vector<std::pair<IChangeCallback*, Groups>> _found;
  size_t _tried = 0;
};

}  // namespace tavix::settings::common
