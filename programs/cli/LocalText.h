#pragma once

#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::cli {

// Settings text that a person may have written, and that is changed without losing what is not settings: comments,
// blank lines, the order of lines and their spelling stay where nothing changes. A plain value.
class LocalText {
 public:
  // source: what errors call the text. Throws Failure, kExitBadInput, for a line that is no settings text.
  LocalText(const std::string& text, const std::string& source);

  const core::IniFile& GetSettings() const { return _settings; }

  // Makes the text say what "settings" holds. Groups and keys that it lacks go.
  void Change(const core::IniFile& settings);

  std::string ToText() const;

 private:
  enum class Kind { kOther, kHeader, kSetting };

  struct Line {
    Kind kind = Kind::kOther;
    std::string group;  // that is open behind the line
    std::string key;    // of a setting
    std::string text;   // without the line feed
  };

  void AddLine(const std::string& text);
  void RemoveWhatIsMissingIn(const core::IniFile& settings);
  void SetValue(const std::string& group, const std::string& key, const std::string& value);
  void AddSetting(const std::string& group, Line line);
  void AddGroup(const std::string& group);

  core::IniFile _settings;
  std::vector<Line> _lines;
  std::string _openGroup;  // while lines are added
};

}  // namespace tavix::cli
