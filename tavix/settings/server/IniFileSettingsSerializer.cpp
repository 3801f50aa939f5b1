#include "tavix/settings/server/IniFileSettingsSerializer.h"

#include <vector>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::server {

using core::IniFile;

void IniFileSettingsSerializer::OnSerialize(const IniFile& settings, const common::GroupNameMatcher& groups,
                                            std::ostream& os) const {
  std::vector<IniFile::const_iterator> matched;
  groups.GetMatchingGroups(settings, matched);
  for (const auto& group : matched) IniFile::SaveGroupToStream(os, group);
}

void IniFileSettingsSerializer::OnDeserialize(std::istream& is, IniFile& settings) const {
  stl::DelimitedIstream payload(&is);
  settings.LoadFromStream(payload, "settings payload");
}

}  // namespace tavix::settings::server
