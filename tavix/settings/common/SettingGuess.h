#pragma once

#include <optional>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::settings::common {

// One setting that somebody named without brackets.
struct GuessedSetting {
  std::string group;
  std::string key;
  bool hasDot;  // the key stood behind a dot, not a slash: as a group's name, the text would be unusual
};

// What was meant by "Video.Main.fps", "Video/Main.fps" or "Video/Main/fps": the group Video/Main and its key fps. None
// for a text that can't be taken apart so.
TAVIX_DAEMON_EXPORT std::optional<GuessedSetting> GuessSetting(const std::string& text);

}  // namespace tavix::settings::common
