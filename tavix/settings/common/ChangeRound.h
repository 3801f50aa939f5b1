#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/common/PatternIndex.h"
#include "tavix/settings/common/Subscriptions.h"

namespace tavix::settings::common {

// Some of the changed groups, by their position among these. It takes one bit for each changed group at most.
class GroupSubset {
 public:
  // group: not less than the one before. all: how many groups have changed.
  void Append(uint32_t group, size_t all);
  void Insert(uint32_t group, size_t all);

  size_t GetSize() const { return _size; }
  bool operator==(const GroupSubset& other) const { return _list == other._list && _bits == other._bits; }

  template <class Visit>
  void ForEach(Visit visit) const {
    for (const uint32_t group : _list) visit(group);
    for (size_t group = 0; group < _bits.size(); ++group) {
      if (_bits[group]) visit(group);
    }
  }

 private:
  void TurnIntoBits(size_t all);

  std::vector<uint32_t> _list;  // ascending, while they are few
  std::vector<bool> _bits;      // else
  size_t _size = 0;
};

// A change of many groups on its way to its subscribers: finds them piece by piece, while subscribers come and go, and
// tells them at last.
//
// Threads: not safe on its own; the dispatcher's locks are named with each operation.
class ChangeRound {
 public:
  // changedGroups outlives the round.
  explicit ChangeRound(const std::set<std::string>& changedGroups);

  // Finds the subscribers of some more groups. False once all groups are done. For a lock against changes of the
  // subscriptions.
  bool MatchPiece(const Subscriptions& subscriptions);

  // A subscriber got more texts, or goes, while the round is under way. Under the lock for changes.
  void OnAdded(const Subscriber& subscriber, const std::vector<PatternIndex::Id>& texts);
  void OnRemoved(const Subscriber& subscriber);

  // Whether so much was subscribed to meanwhile that it is better to begin anew without the lock under which
  // MatchAdded would work.
  bool IsOutdated() const;

  // Forgets all that was found.
  void Restart();

  // Finds the subscribers that came meanwhile. Until the end of the round nobody may come or go.
  void MatchAdded(const Subscriptions& subscriptions);

  // Calls those that were found, in ascending order of their addresses. What one throws ends the round.
  void Tell(const Subscriptions& subscriptions, const core::IniFile& settings) const;

  // How many patterns were compared with names of groups.
  size_t GetTried() const { return _search.GetTried(); }

 private:
  GroupSubset& FoundBy(uint32_t number);
  std::set<std::string> NamesOf(const GroupSubset& groups) const;

  const std::set<std::string>& _changedGroups;
  std::vector<const std::string*> _groups;
  size_t _next = 0;                                           // the first group that no subscribers were looked for
  std::vector<GroupSubset> _found;                            // by the subscriber's number
  std::vector<std::pair<uint32_t, PatternIndex::Id>> _added;  // numbers of subscribers with new texts of theirs
  PatternIndex::Search _search;
};

}  // namespace tavix::settings::common
