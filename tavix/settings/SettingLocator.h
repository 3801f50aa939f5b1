#pragma once

#include <string>

#include "tavix/osa/Export.h"

namespace tavix::settings {

// The address of one setting. A plain value; both parts are taken as they are and may be empty.
struct TAVIX_EXPORT SettingLocator {
  SettingLocator(const std::string& groupName, const std::string& keyName) : group(groupName), key(keyName) {}

  // Parses "[group]key": what stands before the first bracket is ignored, and the key may itself hold brackets. Throws
  // osa::Exception "Failed to parse '%s' as a SettingLocator"; where it is known what was meant, as with
  // "Video.Main.fps", the log has the right form at warning.
  explicit SettingLocator(const std::string& text);

  std::string group;
  std::string key;
};

}  // namespace tavix::settings
