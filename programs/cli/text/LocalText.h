#pragma once

#include <map>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::programs::cli {

// Settings text that a person may have written, and that is changed without losing what is not settings: comments,
// blank lines, the order of lines, their spelling and their ends stay where nothing changes; new lines end as their
// neighbours do. A plain value.
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

  using Lines = std::vector<Line>;

  // Where a group's lines are.
  struct Place {
    size_t last = 0;                     // of its headers and settings
    std::map<std::string, size_t> keys;  // the line that counts
  };
  using Places = std::map<std::string, Place>;

  void AddLine(const std::string& text);
  void RemoveMissing(const core::IniFile& settings);
  Places FindPlaces() const;
  static Line MakeLine(Line line, const Line& neighbour);
  static Line MakeSetting(const std::string& group, const std::string& key, const std::string& value,
                          const Line& neighbour);
  void SetValues(const std::string& group, const core::IniFile::KeyMap& keys, const Place& place, Lines& added);
  void AddGroup(const std::string& group, const core::IniFile::KeyMap& keys, Lines& added) const;
  void Insert(std::map<size_t, Lines>& added);
  void Append(Lines lines);

  core::IniFile _settings;
  Lines _lines;
  std::string _openGroup;  // while lines are added
};

}  // namespace tavix::programs::cli
