#pragma once

#include <map>
#include <set>
#include <string>

#include "tests/support/RecordingCallback.h"

namespace tavix::test {

// The plainest model of a store: a map of maps for each layer. Each change costs what the whole store does.
//
// Threads: one at a time.
class StoreModel {
 public:
  using Names = std::set<std::string>;
  using Groups = std::map<std::string, std::map<std::string, std::string>>;

  static constexpr char kRecord[] = "TavixSettings/Data/DeletedGroups";

  struct Amendment {
    Groups present;
    Groups absent;
    Groups set;
    Groups unset;
    Groups replace;
    Groups drop;  // the keys do not count
  };

  StoreModel(Groups ofDefaults, Groups ofLoader);

  // The store after a start.
  void Load();

  // Each returns what a subscriber to everything is called with; no groups: it is not called.
  Change Merge(const Groups& settings, bool isPersistent);
  Change Overwrite(const Names& groups, const Groups& settings);
  Change Restore(const Names& groups);

  // Returns whether it was made.
  bool Amend(const Amendment& amendment, Change& change);

  // Whether readers see every value of "test".
  bool Holds(const Groups& test) const;

  // What a store has to hold beside what readers see and the user settings: the defaults that readers do not see, the
  // keys that the next start forgets, and what the restricted loader brought for groups that are not restricted.
  Groups FindHiddenDefaults() const;
  Groups GetUnsaved() const { return _unsaved; }
  Groups FindUnrestricted() const;

  static Groups UnrestrictedOf(const Groups& groups);
  static Names MatchingOf(const Names& wanted, const Groups& groups);
  static std::string TextOf(const Groups& groups);

  Groups defaults;
  Groups restricted;
  Groups user;
  Groups all;

 private:
  struct Touched {
    Names whole;
    Groups keys;
  };

  bool IsPossible(const Amendment& amendment) const;
  Groups AmendUser(const Amendment& amendment) const;
  bool IsHiddenByPattern(const Amendment& amendment, const Groups& amended) const;
  Touched FindTouched(const Amendment& amendment, const Groups& amended) const;
  Groups FindNextStart(const Groups& userSettings) const;
  void Compute(const Touched& touched, const Groups& next);
  void ForgetUnsaved(const Groups& settings);

  Groups _loadedDefaults;  // those of the last start
  Groups _unsaved;
};

}  // namespace tavix::test
