#pragma once

#include <set>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings::server {

// Decides by a group's name alone which clients and sources may set it:
//
//     restricted   the name holds "Secure" or "Trusted" anywhere: set by the restricted loader only, never by clients
//     secure       the name holds "Secure"; every secure group is restricted
//
// Case counts: "secure" is a name like any other.
// Threads: any, without a state; documents as containers.
class TAVIX_EXPORT GroupDiscriminator {
 public:
  static bool IsRestrictedGroup(const std::string& group);

  // Merges the groups of "src" that are not restricted into "dst"; the others are skipped in silence.
  static void MergeUnrestrictedGroups(core::IniFile& dst, const core::IniFile& src);

  static void FilterOutRestrictedGroups(std::set<std::string>& groups);
  static void FilterOutRestrictedGroups(core::IniFile& ini);

  // For persisters that must never write secure groups.
  static void FilterOutSecureGroups(core::IniFile& ini);
};

}  // namespace tavix::settings::server
