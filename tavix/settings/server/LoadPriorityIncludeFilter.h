#pragma once

#include <map>
#include <string>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/IIncludeFilter.h"

namespace tavix::settings::server {

// Lets a source protect its groups from later sources.
//
// A source's group "TavixSettings/LoadPriority" gives priorities: key = group name, value = a signed decimal number.
// From then on, a source's copy of that group counts only if the same source gives it at least that priority.
// Priorities never fall, last as long as the filter, and can't be given to restricted groups. The group itself never
// passes the filter.
//
// Threads: any; two restores may load defaults at once.
class TAVIX_EXPORT LoadPriorityIncludeFilter : public IIncludeFilter {
 public:
  using Priorities = std::map<std::string, int>;

  static constexpr char kGroup[] = "TavixSettings/LoadPriority";

  void FilterIni(core::IniFile& ini) override TAVIX_EXCLUDES(_mutex);

  // Raises priorities; one that is lower than what is known changes nothing.
  void MergePriorities(const Priorities& more) TAVIX_EXCLUDES(_mutex);

 private:
  void RaisePriorities(const Priorities& more) TAVIX_REQUIRES(_mutex);
  void RemoveOutrankedGroups(core::IniFile& ini, const Priorities& incoming) const TAVIX_REQUIRES(_mutex);

  osa::PlainMutex _mutex;
  Priorities _priorities TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::settings::server
