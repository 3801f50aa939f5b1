#include "tavix/settings/server/IniFileSettingsSerializer.h"

#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::server {

using client::protocol::kTerminator;
using core::IniFile;
using core::ViewIstream;

namespace {

const std::string kSource = "settings payload";

// The lines up to the terminator's, which is taken, too.
std::string_view TakeLines(ViewIstream& in) {
  const char* const begin = in.GetRest().data();
  const char* end = begin;
  for (std::string_view line; in.TakeLine(line) && line != kTerminator;) end = line.data() + line.size();
  return {begin, static_cast<size_t>(end - begin)};
}

}  // namespace

void IniFileSettingsSerializer::OnSerialize(const IniFile& settings, const common::GroupNameMatcher& groups,
                                            std::ostream& os) const {
  std::vector<IniFile::const_iterator> matched;
  groups.GetMatchingGroups(settings, matched);
  for (const auto& group : matched) IniFile::SaveGroupToStream(os, group);
}

void IniFileSettingsSerializer::WriteGroup(std::ostream& os, IniFile::const_iterator group) const {
  IniFile::SaveGroupToStream(os, group);
}

void IniFileSettingsSerializer::OnDeserialize(std::istream& is, IniFile& settings) const {
  stl::DelimitedIstream payload(&is);
  settings.LoadFromStream(payload, kSource);
}

void IniFileSettingsSerializer::OnDeserializeView(ViewIstream& view, IniFile& settings) const {
  settings.LoadFromMemory(TakeLines(view), kSource);
}

}  // namespace tavix::settings::server
