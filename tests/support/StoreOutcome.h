#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <ostream>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/PlannedChange.h"

namespace tavix::test {

// What stands around a store whose memory runs out, and what came of a change. No call asks for memory.
//
// Threads: one at a time.

// Counts its calls, without memory.
class CallCountingPersister : public settings::server::ISettingsPersister {
 public:
  void LoadDefaultSettings(settings::server::SettingsCombiner&) override {}
  void LoadUserSettings(settings::server::SettingsCombiner&) override {}
  void SaveUserSettings(const core::IniFile&) override {}
  void PrepareChange(const settings::server::PlannedChange&) override {
    if (onPrepared) onPrepared();
  }
  settings::server::ChangeTicket SaveChangedGroups(const core::IniFile&, const std::set<std::string>&) override {
    ++saves;
    return 0;
  }
  settings::server::ChangeTicket SaveAddedSettings(const core::IniFile&, const std::set<std::string>&,
                                                   const core::IniFile&) override {
    ++saves;
    return 0;
  }

  int saves = 0;
  std::function<void()> onPrepared;  // may be empty
};

// Remembers which groups it is called for, without memory.
class SeenGroups : public settings::IChangeCallback {
 public:
  explicit SeenGroups(const std::set<std::string>& possible) {
    for (const std::string& name : possible) _seen[name] = false;
  }

  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile&) override {
    for (const std::string& name : changedGroups) {
      const auto seen = _seen.find(name);
      if (seen != _seen.end()) seen->second = true;
    }
  }

  std::set<std::string> Get() const {
    std::set<std::string> names;
    for (const auto& [name, isSeen] : _seen) {
      if (isSeen) names.insert(name);
    }
    return names;
  }

 private:
  std::map<std::string, bool> _seen;
};

// What a change made of a small store. A plain value.
struct StoreOutcome {
  std::string all;
  std::string user;
  size_t bytes = 0;  // 0 where a change that is not made leaves more, too
  std::set<std::string> notified;
  int saves = 0;

  bool operator==(const StoreOutcome& other) const {
    return all == other.all && user == other.user && bytes == other.bytes && notified == other.notified &&
           saves == other.saves;
  }
};

inline std::ostream& operator<<(std::ostream& out, const StoreOutcome& outcome) {
  out << "all\n" << outcome.all << "user\n" << outcome.user << outcome.bytes << " bytes, saved " << outcome.saves;
  for (const std::string& name : outcome.notified) out << ", notified of " << name;
  return out;
}

}  // namespace tavix::test
