#include "tavix/settings/common/SettingGuess.h"

#include <algorithm>

namespace tavix::settings::common {

namespace {

// What stands in names that people type; anything else needs care with brackets and escapes.
bool IsPlain(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '/' ||
         c == '-' || c == '_';
}

}  // namespace

std::optional<GuessedSetting> GuessSetting(const std::string& text) {
  if (!std::all_of(text.begin(), text.end(), IsPlain)) return std::nullopt;
  const size_t slash = text.rfind('/');
  // Behind the last slash the first dot ends the group: keys such as "log.level" have dots. Without any slash dots
  // stand in its place.
  const size_t dot = slash == std::string::npos ? text.rfind('.') : text.find('.', slash);
  const size_t end = dot != std::string::npos ? dot : slash;
  if (end == std::string::npos || end == 0 || end + 1 == text.size()) return std::nullopt;
  GuessedSetting setting{text.substr(0, end), text.substr(end + 1), dot != std::string::npos};
  if (setting.group == ".") return std::nullopt;  // no list of groups can name it
  if (slash == std::string::npos) std::replace(setting.group.begin(), setting.group.end(), '.', '/');
  return setting;
}

}  // namespace tavix::settings::common
