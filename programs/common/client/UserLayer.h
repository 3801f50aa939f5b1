#pragma once

#include <cstddef>
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

  bool IsEmpty() const { return settings.IsEmpty() && deleted.empty(); }
};

// What a store's user layer holds besides a wanted one. A plain value.
struct LayerSurplus {
  core::IniFile settings;         // groups that the wanted layer lacks, and settings that it lacks
  std::set<std::string> deleted;  // all that the store's layer records, wanted or not
  size_t differences = 0;         // settings that are wanted and not there, and such groups without settings
};

// The store's user layer without what no client could write, group by group; the record of what was deleted is one of
// them. Groups and patterns mean a part of it; all of it without any.
void ReadUserLayerEach(Session& session, const std::set<std::string>& groups, const Session::TakeGroup& take);

// Compares the store's layer with the wanted one. Only the surplus is kept.
LayerSurplus ReadSurplus(Session& session, const std::set<std::string>& groups, const UserLayer& wanted);

// Makes the store's user layer the wanted one. Its surplus can only be put back to its defaults, of which the store
// then keeps copies. isWhole: the two are all of the layer, and the record of what was deleted becomes the wanted one
// too; otherwise names stay in it, and do no harm.
// Reads back what was set, and throws as the functions of Writes.h do.
void ReplaceUserLayer(Session& session, const LayerSurplus& surplus, const UserLayer& wanted, bool isWhole);

}  // namespace tavix::programs
