#pragma once

#include "tavix/settings/server/ISettingsSerializer.h"

namespace tavix::settings::server {

// "ini": settings text, ended by a line that holds only "." (docs/settings-text.md).
//
// Threads: any.
class TAVIX_EXPORT IniFileSettingsSerializer : public ISettingsSerializer {
 public:
  void OnSerialize(const core::IniFile& settings, const common::GroupNameMatcher& groups,
                   std::ostream& os) const override;

  bool CanWriteGroups() const override { return true; }
  void WriteGroup(std::ostream& os, core::IniFile::const_iterator group) const override;

  // Reads the terminator's line too.
  void OnDeserialize(std::istream& is, core::IniFile& settings) const override;
  void OnDeserializeView(core::ViewIstream& view, core::IniFile& settings) const override;
};

}  // namespace tavix::settings::server
