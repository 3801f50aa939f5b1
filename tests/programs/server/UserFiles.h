#pragma once

#include <algorithm>
#include <string>

#include "programs/server/persistence/UserSettingsFiles.h"
#include "tests/support/DocumentText.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// The settings of a snapshot's text, without the lines around them.
inline std::string WithoutComments(const std::string& text) {
  std::string settings;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    if (text[begin] != '#') settings += text.substr(begin, end - begin);
    begin = end;
  }
  return settings;
}

// What a daemon that was stopped left in that file.
inline std::string ReadSnapshot(const TemporaryDirectory& directory, const std::string& file = "user.ini") {
  return WithoutComments(directory.Read(file));
}

// What a daemon would find that starts now, when another may be running or have been killed. Touches nothing.
inline daemon::FoundUserSettings FindSaved(const std::string& path) {
  return daemon::UserSettingsFiles(daemon::GetSystemFiles(), path).Find(false);
}

inline std::string FindSavedText(const TemporaryDirectory& directory, const std::string& file = "user.ini") {
  return TextOf(FindSaved(directory.Path(file)).settings);
}

}  // namespace tavix::test
