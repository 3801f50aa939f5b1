#include "tavix/settings/server/ISettingsSerializer.h"

#include "tavix/core/MemoryStream.h"

namespace tavix::settings::server {

void ISettingsSerializer::SkipPayloadEnd(std::istream&) const {}

bool ISettingsSerializer::CanWriteGroups() const {
  return false;
}

void ISettingsSerializer::WriteBegin(std::ostream&, size_t) const {}

void ISettingsSerializer::WriteGroup(std::ostream&, core::IniFile::const_iterator) const {}

void ISettingsSerializer::WriteEnd(std::ostream&) const {}

void ISettingsSerializer::OnDeserializeView(core::ViewIstream& view, core::IniFile& settings) const {
  OnDeserialize(view, settings);
}

}  // namespace tavix::settings::server
