#pragma once

#include <map>
#include <set>
#include <string>

#include "programs/web/daemon/DaemonLink.h"
#include "tavix/core/IniFile.h"

namespace tavix::web {

// Groups that several requests want at once, read by one question each of what they hold and of the user's settings.
//
// Threads: one, a worker's.
class GroupReads {
 public:
  struct Group {
    const core::IniFile::KeyMap* keys;    // null: there is no such group
    const std::set<std::string>* ofUser;  // keys; null: the user set nothing
  };

  // Forgets what was read before. What can't be read until then, or would take too much, is not known: the requests
  // read on their own.
  void Read(DaemonLink& link, const std::set<std::string>& names, DaemonLink::Clock::time_point end);

  void Forget();

  // Whether this is known of the group.
  bool Has(const std::string& name) const { return _names.count(name) != 0; }

  // Of a group that is known. Valid until the next call of Read or Forget.
  Group Find(const std::string& name) const;

 private:
  void ReadKeys(settings::client::ProtocolClient& client, const std::set<std::string>& names);
  void ReadUserKeys(settings::client::ProtocolClient& client, const std::set<std::string>& names);

  std::set<std::string> _names;
  core::IniFile _groups;
  std::map<std::string, std::set<std::string>> _user;
};

}  // namespace tavix::web
