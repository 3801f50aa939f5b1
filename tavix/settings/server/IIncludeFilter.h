#pragma once

#include "tavix/osa/Export.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings::server {

// Edits one freshly loaded source before it is merged into the document that is being built.
//
// Threads: a store loads its sources on several threads at once, as each restore loads the defaults anew.
class TAVIX_EXPORT IIncludeFilter {
 public:
  virtual ~IIncludeFilter() = default;

  virtual void FilterIni(core::IniFile& ini) = 0;
};

}  // namespace tavix::settings::server
