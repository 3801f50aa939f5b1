#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "programs/bridge/core/DocumentBook.h"
#include "programs/bridge/core/IStateStore.h"

namespace tavix::bridge {

// A key to which a document was applied. A plain value.
struct GovernedKey {
  Origin origin;
  std::optional<std::string> shown;  // what readers saw of it behind that
  bool isOverridden = false;         // the device's value was kept
};

// The keys that documents govern, as they were applied: what is agreed with the centre.
//
// Threads: one.
// Errors:  osa::Exception of the store.
class GovernedKeys {
 public:
  using Group = std::map<std::string, GovernedKey>;

  // store: outlives the object.
  explicit GovernedKeys(IStateStore& store);

  const GovernedKey* Find(const std::string& group, const std::string& key) const;
  bool HasGroup(const std::string& group) const { return _groups.count(group) > 0; }
  const std::map<std::string, Group>& GetGroups() const { return _groups; }

  // On the disk when Commit returns.
  void Set(const std::string& group, const std::string& key, const GovernedKey& governed);
  void Remove(const std::string& group, const std::string& key);
  void Commit();

 private:
  IStateStore& _store;
  std::map<std::string, Group> _groups;
  std::set<std::string> _changed;
};

}  // namespace tavix::bridge
