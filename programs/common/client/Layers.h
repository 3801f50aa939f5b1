#pragma once

#include <string>

#include "programs/common/client/Session.h"
#include "tavix/core/IniFile.h"

namespace tavix::programs {

// Tells which layer of the store a setting that readers see comes from.
//
// Threads: one, the session's.
class Layers {
 public:
  // session: outlives this. Reads the user layer.
  explicit Layers(Session& session);

  // "restricted", "user" or "default".
  const char* FindOrigin(const std::string& group, const std::string& key) const;

  // The same for a whole group; "mixed" where its settings come from both.
  const char* FindOrigin(core::IniFile::const_iterator group) const;

 private:
  const Session& _session;
  core::IniFile _user;  // without its values
};

}  // namespace tavix::programs
