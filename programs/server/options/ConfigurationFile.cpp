#include "programs/server/options/ConfigurationFile.h"

#include <sys/stat.h>

#include <cerrno>

#include "programs/server/options/OptionValues.h"
#include "programs/server/system/NullDevice.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/SettingsText.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr char kGroup[] = "Server";
constexpr size_t kMaxShown = 80;

std::string Shown(const std::string& text) {
  return core::PrintableText(text, kMaxShown);
}

void AddGiven(const std::string& path, const OptionEntry& option, const std::string& value,
              std::vector<GivenOption>& given) {
  try {
    Options scratch;
    option.apply(scratch, value);
  } catch (const osa::Exception& exception) {
    throw osa::Exception("%s: %s '%s': %s", path.c_str(), option.name, Shown(value).c_str(), exception.what());
  }
  given.push_back({&option, value});
}

// A flag has to say which: a key without a value is more likely a mistake.
void AddKey(const std::string& path, const std::string& key, const std::string& value,
            std::vector<GivenOption>& given) {
  const OptionEntry* const option = FindOption(key);
  if (!option || !option->inFile)
    throw osa::Exception("%s: unknown key '%s' with value '%s'", path.c_str(), Shown(key).c_str(),
                         Shown(value).c_str());
  if (option->kind == OptionEntry::Kind::kList) {
    for (const std::string& part : SplitList(value)) AddGiven(path, *option, part, given);
  } else if (option->kind == OptionEntry::Kind::kFlag && value.empty()) {
    throw osa::Exception("%s: %s '': expected true or false", path.c_str(), option->name);
  } else {
    AddGiven(path, *option, value, given);
  }
}

bool IsAbsent(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) != 0 && errno == ENOENT;
}

// Waiting for a pipe's writer would hold up the start for ever. A link to /dev/null is an empty file.
bool IsReadable(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || IsNullDevice(status);
}

}  // namespace

std::vector<GivenOption> ReadConfigurationFile(const std::string& path, bool mustExist) {
  if (!mustExist && IsAbsent(path)) return {};
  if (!IsReadable(path)) throw osa::Exception("Failed to open settings file '%s': not a regular file", path.c_str());
  const core::IniFile document(path.c_str());
  std::vector<GivenOption> given;
  for (const auto& [group, keys] : document) {
    if (group != kGroup)
      throw osa::Exception("%s: unknown group [%s]; options stand in [%s]", path.c_str(), Shown(group).c_str(), kGroup);
    for (const auto& [key, value] : keys) AddKey(path, key, value, given);
  }
  return given;
}

}  // namespace tavix::daemon
