#pragma once

#include <algorithm>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

// What of a document clients may write: the document itself, which outlives the object, unless something has to be left
// out.
//
// Threads: as the document.
class UnrestrictedPart {
 public:
  explicit UnrestrictedPart(const core::IniFile& settings)
      : _isWhole(std::none_of(settings.begin(), settings.end(),
                              [](const auto& group) { return GroupDiscriminator::IsRestrictedGroup(group.first); })),
        _whole(settings) {
    if (!_isWhole) GroupDiscriminator::MergeUnrestrictedGroups(_part, settings);
  }

  const core::IniFile& Get() const { return _isWhole ? _whole : _part; }

 private:
  const bool _isWhole;
  const core::IniFile& _whole;
  core::IniFile _part;
};

}  // namespace tavix::settings::server
