#include "tavix/settings/server/SettingsCombiner.h"

#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/IIncludeFilter.h"

namespace tavix::settings::server {

using core::IniFile;

void SettingsCombiner::LoadFromFile(const std::string& path) {
  LoadFromIni(IniFile(path.c_str()));
}

void SettingsCombiner::LoadFromString(const std::string& text) {
  IniFile source;
  source.LoadFromString(text);
  LoadFromIni(std::move(source));
}

void SettingsCombiner::LoadFromIni(const IniFile& ini) {
  IniFile source;
  source.MergeSettings(ini);
  LoadFromIni(std::move(source));
}

void SettingsCombiner::LoadFromIni(IniFile&& ini) {
  RunFilters(ini);
  Merge(std::move(ini));
}

void SettingsCombiner::RunFilters(IniFile& ini) const {
  for (IIncludeFilter* filter : _filters) filter->FilterIni(ini);
}

void SettingsCombiner::Merge(const IniFile& ini) {
  _target.MergeSettings(ini);
}

void SettingsCombiner::Merge(IniFile&& ini) {
  _target.MergeSettings(std::move(ini));
}

}  // namespace tavix::settings::server
