#include "tavix/settings/SettingLocator.h"

#include <vector>

#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"

namespace tavix::settings {

SettingLocator::SettingLocator(const std::string& text) {
  std::vector<std::string> parts;
  core::StringUtil::Split(parts, text, "[]", 3);
  if (parts.size() != 3) throw osa::Exception("Failed to parse '%s' as a SettingLocator", text.c_str());
  group = parts[1];
  key = parts[2];
}

}  // namespace tavix::settings
