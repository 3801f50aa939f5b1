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

// A change of many groups on its way to its subscribers: first finds them, then calls them, both piece by piece, while
// subscribers come and go.
//
// Threads: not safe on its own; the dispatcher's locks are named with each operation.
class ChangeRound {
 public:
  // changedGroups outlives the round.
  explicit ChangeRound(const std::set<std::string>& changedGroups);

  // Finds the subscribers of some more groups. False once all groups are done. For a lock against changes of the
  // subscriptions.
  bool MatchPiece(const Subscriptions& subscriptions);

  // A subscriber got more texts, or goes, while the round is under way. Under the lock for changes. Who comes between
  // the calls of the round is not called: it has subscribed after the change.
  void OnAdded(const Subscriber& subscriber, const std::vector<PatternIndex::Id>& texts);
  void OnRemoved(const Subscriber& subscriber);

  // Whether so much was subscribed to before the first call that it is better to begin anew than to find the new
  // subscribers under the lock that callbacks are called under.
  bool IsOutdated() const;

  // Forgets all that was found.
  void Restart();

  // Calls some more of those that were found, in ascending order of their addresses. The first call also finds the
  // subscribers that came since they were looked for. False once all were called. During the call nobody may come or
  // go. What a callback throws ends the round. isPiece: false: all of them are called.
  bool CallPiece(const Subscriptions& subscriptions, const core::IniFile& settings, bool isPiece);

  // How many patterns were compared with names of groups.
  size_t GetTried() const { return _search.GetTried(); }

 private:
  void MatchAdded(const Subscriptions& subscriptions);
  GroupSubset& FoundBy(uint32_t number);
  const std::set<std::string>& NamesOf(const GroupSubset& groups);

  const std::set<std::string>& _changedGroups;
  std::vector<const std::string*> _groups;
  size_t _next = 0;                                           // the first group that no subscribers were looked for
  std::vector<GroupSubset> _found;                            // by the subscriber's number
  std::vector<std::pair<uint32_t, PatternIndex::Id>> _added;  // numbers of subscribers with new texts of theirs
  PatternIndex::Search _search;
  bool _calls = false;  // the first of them was made
  IChangeCallback* _lastCalled = nullptr;
  GroupSubset _named;            // the groups of the last call; subscribers of the same groups often follow
  std::set<std::string> _names;  // of these
};

}  // namespace tavix::settings::common
