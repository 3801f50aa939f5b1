#pragma once

#include <cstddef>
#include <iosfwd>

namespace tavix::core {
class IniFile;
}
namespace tavix::settings::common {
class GroupNameMatcher;
}

namespace tavix::settings::server {

class ISettingsSerializer;

// Writes the matching groups of a document as the serializer does, unless that takes more than about "maxWork" (see
// GroupWalk), or the text has more than some 256 bytes for each unit of it. False: then nothing was written. The
// document does not change during the call.
[[nodiscard]] bool TryWriteGroups(std::ostream& os, const core::IniFile& document,
                                  const common::GroupNameMatcher& matcher, const ISettingsSerializer& serializer,
                                  size_t maxWork);

}  // namespace tavix::settings::server
