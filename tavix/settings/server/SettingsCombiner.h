#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"

namespace tavix::settings::server {

class IIncludeFilter;

// Loads sources one after the other into one document: each is read whole, edited by the filters in the order of their
// addition, then merged over what is there. A source that can't be loaded leaves the target as it was.
//
// Threads: one at a time.
// Owns:    nothing; target and filters outlive the combiner.
// Errors:  those of IniFile and of the filters pass through.
class TAVIX_EXPORT SettingsCombiner {
 public:
  explicit SettingsCombiner(core::IniFile& target) : _target(target) {}

  void AddFilter(IIncludeFilter* filter) { _filters.push_back(filter); }

  // The groups that the caller needs. A loader of sources may leave the others out, and none of them is missed:
  // no filter needs them. Empty, as at first: all are wanted.
  void SetWanted(core::IniFile::GroupFilter isWanted) { _isWanted = std::move(isWanted); }
  const core::IniFile::GroupFilter& GetWanted() const { return _isWanted; }

  void LoadFromFile(const std::string& path);
  void LoadFromString(const std::string& text);

  // The caller's document is copied, or used up.
  void LoadFromIni(const core::IniFile& ini);
  void LoadFromIni(core::IniFile&& ini);

  void RunFilters(core::IniFile& ini) const;
  void Merge(const core::IniFile& ini);
  void Merge(core::IniFile&& ini);

 private:
  std::vector<IIncludeFilter*> _filters;
  core::IniFile::GroupFilter _isWanted;
  core::IniFile& _target;
};

}  // namespace tavix::settings::server
