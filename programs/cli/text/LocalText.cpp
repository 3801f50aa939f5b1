#include "programs/cli/text/LocalText.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "tavix/osa/Exception.h"

namespace tavix::programs::cli {

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
  RemoveMissing(settings);
  const Places places = FindPlaces();
  std::map<size_t, Lines> added;  // behind which line
  Lines newGroups;
  for (const auto& [group, keys] : settings) {
    const auto place = places.find(group);
    if (place == places.end()) {
      AddGroup(group, keys, newGroups);
    } else {
      SetValues(group, keys, place->second, added[place->second.last]);
    }
  }
  Insert(added);
  Append(std::move(newGroups));
  _settings = settings;
  // The file is somebody's settings: what is written has to read as what was asked for, whatever it looks like.
  if (Parse(ToText(), "the changed text").GetGroups() == settings.GetGroups()) return;
  std::ostringstream text;
  settings.SaveToStream(text);
  *this = LocalText(text.str(), "the changed text");
}

void LocalText::RemoveMissing(const IniFile& settings) {
  const auto isGone = [&](const Line& line) {
    if (line.kind == Kind::kHeader) return !settings.HasGroup(line.group);
    return line.kind == Kind::kSetting && !settings.HasValue(line.group, line.key);
  };
  _lines.erase(std::remove_if(_lines.begin(), _lines.end(), isGone), _lines.end());
}

// The last of several lines for a key is the one that counts.
LocalText::Places LocalText::FindPlaces() const {
  Places places;
  for (size_t i = 0; i < _lines.size(); ++i) {
    const Line& line = _lines[i];
    if (line.kind == Kind::kOther) continue;
    Place& place = places[line.group];
    place.last = i;
    if (line.kind == Kind::kSetting) place.keys[line.key] = i;
  }
  return places;
}

// A line that ends as its neighbour does.
LocalText::Line LocalText::MakeLine(Line line, const Line& neighbour) {
  if (!neighbour.text.empty() && neighbour.text.back() == '\r') line.text += '\r';
  return line;
}

LocalText::Line LocalText::MakeSetting(const std::string& group, const std::string& key, const std::string& value,
                                       const Line& neighbour) {
  return MakeLine({Kind::kSetting, group, key, SpellKey(key) + "=" + SpellValue(value)}, neighbour);
}

// What is new goes behind the group's last setting, so that blank lines and comments before the next header stay before
// that.
void LocalText::SetValues(const std::string& group, const IniFile::KeyMap& keys, const Place& place, Lines& added) {
  for (const auto& [key, value] : keys) {
    const auto line = place.keys.find(key);
    if (line == place.keys.end()) {
      added.push_back(MakeSetting(group, key, value, _lines[place.last]));
    } else if (_settings.GetValue(group, key) != value) {
      _lines[line->second] = MakeSetting(group, key, value, _lines[line->second]);
    }
  }
}

void LocalText::AddGroup(const std::string& group, const IniFile::KeyMap& keys, Lines& added) const {
  const auto isBlank = [](const Line& line) { return line.text.empty() || line.text == "\r"; };
  const Lines& before = added.empty() ? _lines : added;
  const Line first = _lines.empty() ? Line() : _lines.front();
  if (!before.empty() && !isBlank(before.back())) added.push_back(MakeLine({Kind::kOther, group, "", ""}, first));
  added.push_back(MakeLine({Kind::kHeader, group, "", "[" + SpellName(group) + "]"}, first));
  for (const auto& [key, value] : keys) added.push_back(MakeSetting(group, key, value, first));
}

void LocalText::Insert(std::map<size_t, Lines>& added) {
  Lines lines;
  for (size_t i = 0; i < _lines.size(); ++i) {
    lines.push_back(std::move(_lines[i]));
    const auto behind = added.find(i);
    if (behind != added.end()) std::move(behind->second.begin(), behind->second.end(), std::back_inserter(lines));
  }
  _lines = std::move(lines);
}

void LocalText::Append(Lines lines) {
  std::move(lines.begin(), lines.end(), std::back_inserter(_lines));
}

std::string LocalText::ToText() const {
  std::string text;
  for (const Line& line : _lines) text += line.text + "\n";
  return text;
}

}  // namespace tavix::programs::cli
