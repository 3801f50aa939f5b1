#pragma once

#include <cstdint>
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

// A step that was about to be made: what readers saw of its keys before it. A plain value.
struct StepIntent {
  std::string epoch;
  std::uint64_t version = 0;
  std::map<std::string, std::map<std::string, std::optional<std::string>>> before;  // by group and key
};

// The keys that documents govern, as they were applied: what is agreed with the centre. And the steps of which nobody
// knows if they were made.
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

  const StepIntent* FindIntent(const DocumentName& document) const;

  // On the disk when Commit returns; if that fails, with the next one.
  void SetIntent(const DocumentName& document, const StepIntent& intent);
  void RemoveIntent(const DocumentName& document);
  void Set(const std::string& group, const std::string& key, const GovernedKey& governed);
  void Remove(const std::string& group, const std::string& key);
  void Commit();

 private:
  IStateStore& _store;
  std::map<std::string, Group> _groups;
  std::map<std::string, StepIntent> _intents;  // by the spelled name of the document
  std::set<std::string> _changed;
  std::set<std::string> _changedIntents;
};

}  // namespace tavix::bridge
