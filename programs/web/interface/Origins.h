#pragma once

#include <map>
#include <set>
#include <string>

#include "programs/web/interface/Call.h"
#include "tavix/core/IniFile.h"

namespace tavix::web {

// Which layer the settings of some groups come from.
//
// Threads: one.
class Origins {
 public:
  // Reads the user layer, and keeps of it the keys of these groups alone.
  Origins(Call& call, const std::set<std::string>& groups);

  // "restricted", "user" or "default".
  const char* Find(const std::string& group, const std::string& key) const;

  // The same of a whole group; "mixed" where its settings come from both.
  const char* Find(const std::string& group, const core::IniFile::KeyMap& keys) const;

 private:
  bool IsFromUser(const std::string& group, const std::string& key) const;

  const Call& _call;
  std::map<std::string, std::set<std::string>> _user;  // the keys of each group
};

}  // namespace tavix::web
