#pragma once

#include <set>
#include <string>

#include "programs/common/client/Session.h"
#include "tavix/core/IniFile.h"

namespace tavix::programs {

// What clients wrote over the defaults: settings, and the names and patterns of the groups that they deleted. A plain
// value.
struct UserLayer {
  core::IniFile settings;
  std::set<std::string> deleted;

  // The part of a document, such as a backup of the layer, that groups and patterns mean; all of it without any.
  static UserLayer From(core::IniFile document, const std::set<std::string>& groups);

  // Take out what no client could write; of all, or of what was deleted.
  void DropRestricted(const Session& session);
  void DropRestrictedDeleted(const Session& session);

  // One document with the record of what was deleted, as a backup has it.
  core::IniFile ToDocument() const;

  bool IsEmpty() const { return settings.IsEmpty() && deleted.empty(); }
};

// Makes the store's user layer "wanted" where it is "before". What it holds too much can only be put back to its
// defaults, of which the store then keeps copies. isWhole: the two are all of the layer, and the record of what was
// deleted becomes the wanted one too; otherwise names stay in it, and do no harm.
// Reads back what was set, and throws as the functions of Writes.h do.
void ReplaceUserLayer(Session& session, const UserLayer& before, const UserLayer& wanted, bool isWhole);

}  // namespace tavix::programs
