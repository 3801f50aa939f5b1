#include "tavix/settings/SettingLocator.h"

#include <optional>
#include <vector>

#include "tavix/core/Logger.h"
#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/SettingGuess.h"

namespace tavix::settings {

namespace {

// The exception's text is fixed, so the log has what was probably meant.
[[noreturn]] void FailToParse(const std::string& text) {
  if (const std::optional<common::GuessedSetting> guess = common::GuessSetting(text)) {
    core::Logger::GetLogger("SettingLocator")
        ->Warning("'%s' is no setting: one setting is '[%s]%s'", text.c_str(), guess->group.c_str(),
                  guess->key.c_str());
  }
  throw osa::Exception("Failed to parse '%s' as a SettingLocator", text.c_str());
}

}  // namespace

SettingLocator::SettingLocator(const std::string& text) {
  std::vector<std::string> parts;
  core::StringUtil::Split(parts, text, "[]", 3);
  if (parts.size() != 3) FailToParse(text);
  group = parts[1];
  key = parts[2];
}

}  // namespace tavix::settings
