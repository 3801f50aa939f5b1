#include "programs/cli/LocalText.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

#include "programs/cli/Failure.h"
#include "programs/cli/Spelling.h"
#include "tavix/osa/Exception.h"

namespace tavix::cli {

using core::IniFile;

namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

IniFile Parse(const std::string& text, const std::string& source) {
  std::istringstream in(text);
  IniFile settings;
  try {
    settings.LoadFromStream(in, source);
  } catch (const osa::Exception& exception) {
    throw Failure(kExitBadInput, exception.what());
  }
  return settings;
}

}  // namespace

LocalText::LocalText(const std::string& text, const std::string& source) : _settings(Parse(text, source)) {
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) AddLine(line);
}

void LocalText::AddLine(const std::string& text) {
  Line line;
  line.text = text;
  const bool isFirst = _lines.empty() && text.rfind(kByteOrderMark, 0) == 0;
  const std::string content = isFirst ? text.substr(sizeof kByteOrderMark - 1) : text;
  const IniFile parsed = Parse("[]\n" + content, std::string());
  const IniFile::KeyMap& ofNoName = parsed.begin()->second;
  const size_t begin = content.find_first_not_of(" \t\r");
  if (!ofNoName.empty()) {
    line.kind = Kind::kSetting;
    line.key = ofNoName.begin()->first;
  } else if (begin != std::string::npos && content[begin] == '[') {
    line.kind = Kind::kHeader;
    _openGroup = std::prev(parsed.end())->first;
  }
  line.group = _openGroup;
  _lines.push_back(std::move(line));
}

void LocalText::Change(const IniFile& settings) {
  RemoveWhatIsMissingIn(settings);
  for (const auto& [group, keys] : settings) {
    if (!_settings.HasGroup(group)) AddGroup(group);
    for (const auto& [key, value] : keys) {
      if (!_settings.HasValue(group, key) || _settings.GetValue(group, key) != value) SetValue(group, key, value);
    }
  }
  _settings = settings;
  // The file is somebody's settings: what is written has to read as what was asked for, whatever it looks like.
  if (Parse(ToText(), "the changed text").GetGroups() == settings.GetGroups()) return;
  std::ostringstream text;
  settings.SaveToStream(text);
  *this = LocalText(text.str(), "the changed text");
}

void LocalText::RemoveWhatIsMissingIn(const IniFile& settings) {
  const auto isGone = [&](const Line& line) {
    if (line.kind == Kind::kHeader) return !settings.HasGroup(line.group);
    return line.kind == Kind::kSetting && !settings.HasValue(line.group, line.key);
  };
  _lines.erase(std::remove_if(_lines.begin(), _lines.end(), isGone), _lines.end());
}

// The last of several lines for a key is the one that counts.
void LocalText::SetValue(const std::string& group, const std::string& key, const std::string& value) {
  Line line{Kind::kSetting, group, key, SpellKey(key) + "=" + SpellValue(value)};
  const auto last = std::find_if(_lines.rbegin(), _lines.rend(), [&](const Line& at) {
    return at.kind == Kind::kSetting && at.group == group && at.key == key;
  });
  if (last != _lines.rend()) {
    *last = std::move(line);
  } else {
    AddSetting(group, std::move(line));
  }
}

// Behind the group's last setting, so that blank lines and comments before the next header stay before that.
void LocalText::AddSetting(const std::string& group, Line line) {
  const auto last = std::find_if(_lines.rbegin(), _lines.rend(),
                                 [&](const Line& at) { return at.kind != Kind::kOther && at.group == group; });
  _lines.insert(last.base(), std::move(line));
}

void LocalText::AddGroup(const std::string& group) {
  if (!_lines.empty() && !_lines.back().text.empty()) _lines.push_back({Kind::kOther, group, "", ""});
  _lines.push_back({Kind::kHeader, group, "", "[" + SpellName(group) + "]"});
}

std::string LocalText::ToText() const {
  std::string text;
  for (const Line& line : _lines) text += line.text + "\n";
  return text;
}

}  // namespace tavix::cli
