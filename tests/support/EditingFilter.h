#pragma once

#include <functional>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/IIncludeFilter.h"

namespace tavix::test {

// Does to each source what it is told to.
class EditingFilter : public settings::server::IIncludeFilter {
 public:
  explicit EditingFilter(std::function<void(core::IniFile&)> edit) : _edit(std::move(edit)) {}

  void FilterIni(core::IniFile& ini) override { _edit(ini); }

 private:
  const std::function<void(core::IniFile&)> _edit;
};

}  // namespace tavix::test
