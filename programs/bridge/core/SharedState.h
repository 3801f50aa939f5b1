#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "programs/bridge/core/IStateStore.h"
#include "programs/bridge/core/SharedPlan.h"
#include "programs/bridge/engines/Engine.h"

namespace tavix::bridge {

// Keys of an item that are merged with nothing, and what stands there: a value for a key that is masked here, or
// nothing for one whose value another device keeps.
using HiddenKeys = std::map<std::string, std::optional<std::string>>;

// What both ends of a group held last. A plain value.
struct AgreedGroup {
  Keys keys;
  Version version = 0;   // of the engine's item
  bool isThere = false;  // whether there is an item
  HiddenKeys hidden;
  Keys kept;  // keys that are gone there, which the device's daemon is too old to remove

  bool operator==(const AgreedGroup& other) const {
    return keys == other.keys && version == other.version && isThere == other.isThere && hidden == other.hidden &&
           kept == other.kept;
  }

  // Whether there is anything to remember.
  bool IsEmpty() const { return !isThere && keys.empty() && kept.empty(); }
};

// What a mirror of shared groups keeps over a restart. Memory follows the disk: what can't be kept is not known either.
//
// Threads: one.
// Errors:  osa::Exception of the store.
class SharedState {
 public:
  // Reads all of it. store: outlives the object.
  explicit SharedState(IStateStore& store);

  const std::map<std::string, AgreedGroup>& GetAgreed() const { return _agreed; }
  const AgreedGroup* FindAgreed(const std::string& group) const;
  const Intent* FindIntent(const std::string& group) const;

  // How many groups have keys that could not be removed.
  size_t CountKeeping() const { return _keeping; }

  // Several changes are one commit: changes first, then Commit.
  // SetAgreed ends the intent, too, but for the puts of it that may still be carried out.
  void SetAgreed(const std::string& group, const AgreedGroup& agreed, const std::vector<KeyChanges>& late = {});
  void SetIntent(const std::string& group, const Intent& intent);
  void SetFollowed(const std::string& source, Version version);
  void Commit();

  // Where to follow from.
  const std::string& GetSource() const { return _source; }
  Version GetFollowed() const { return _followed; }

 private:
  void Add(StateKind kind, const std::string& key, std::optional<core::IniFile> value);

  IStateStore& _store;
  std::map<std::string, AgreedGroup> _agreed;
  size_t _keeping = 0;  // of them
  std::map<std::string, Intent> _intents;
  std::string _source;
  Version _followed = 0;

  // What Commit is to do, on the disk and in memory.
  std::vector<StateRecord> _records;
  std::map<std::string, AgreedGroup> _newAgreed;
  std::map<std::string, Intent> _newIntents;
  std::optional<std::pair<std::string, Version>> _newFollowed;
};

}  // namespace tavix::bridge
