#pragma once

#include <iosfwd>

#include "tavix/osa/Export.h"

namespace tavix::core {
class IniFile;
}
namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

// One text form of settings on a connection. Stateless: one object serves all connections at once.
class TAVIX_EXPORT ISettingsSerializer {
 public:
  virtual ~ISettingsSerializer() = default;

  // Writes the groups of "settings" that "groups" matches, without a terminator.
  virtual void OnSerialize(const core::IniFile& settings, const common::GroupNameMatcher& groups,
                           std::ostream& os) const = 0;

  // Reads one payload and adds it to "settings", which is not cleared. Throws osa::Exception when it can't be parsed;
  // what came before the error may then be in "settings". A payload that the stream's end cut off leaves "is" not good.
  virtual void OnDeserialize(std::istream& is, core::IniFile& settings) const = 0;

  // Reads what may stand between one payload and the next of the same request. Nothing here.
  virtual void SkipPayloadEnd(std::istream& is) const;
};

}  // namespace tavix::settings::server
