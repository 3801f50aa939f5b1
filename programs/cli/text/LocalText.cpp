#include "programs/cli/text/LocalText.h"

#include <utility>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

using Kind = TextLine::Kind;

IniFile Parse(const std::string& text, const std::string& source) {
  IniFile settings;
  try {
    settings.LoadFromMemory(text, source);
  } catch (const osa::Exception& exception) {
    throw Failure(kExitBadInput, exception.what());
  }
  return settings;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool EndsWithBlankLine(const std::string& text) {
  return text == "\n" || text == "\r\n" || EndsWith(text, "\n\n") || EndsWith(text, "\n\r\n");
}

std::string MakeSetting(const std::string& key, const std::string& value, bool hasReturn) {
  return SpellKey(key) + "=" + SpellValue(value) + (hasReturn ? "\r\n" : "\n");
}

void AddGroup(const IniFile::GroupMap::value_type& group, const std::string& newLine, std::string& text) {
  if (!text.empty() && !EndsWithBlankLine(text)) text += newLine;
  text += "[" + SpellName(group.first) + "]" + newLine;
  for (const auto& [key, value] : group.second) text += MakeSetting(key, value, newLine.size() > 1);
}

// Enough for nearly all settings as they are spelled, so that a large text does not grow in steps, of twice its size.
size_t RoomFor(const IniFile& settings) {
  core::CountingOstream counter;
  settings.SaveToStream(counter);
  constexpr size_t kBlankLines = 4096;
  return 2 * counter.GetCount() + kBlankLines;
}

}  // namespace

// Goes over the lines that are left when groups go.
class LocalText::Remaining {
 public:
  Remaining(const std::string& text, const IsMeant& isGone, const IniFile& settings)
      : _line(text), _isGone(isGone), _settings(settings) {}

  bool Next() {
    while (_line.Next()) {
      if (_line.GetKind() == Kind::kHeader) _isOfGoneGroup = _isGone(_line.GetGroup());
      if (!IsGone()) return true;
      _hasDropped = true;
    }
    return false;
  }

  const TextLine& Get() const { return _line; }
  bool HasDropped() const { return _hasDropped; }

 private:
  bool IsGone() const {
    if (!_isOfGoneGroup) return false;
    if (_line.GetKind() == Kind::kHeader) return !_settings.HasGroup(_line.GetGroup());
    return _line.GetKind() == Kind::kSetting && !_settings.HasValue(_line.GetGroup(), _line.ReadKey());
  }

  TextLine _line;
  const IsMeant& _isGone;
  const IniFile& _settings;
  bool _isOfGoneGroup = false;
  bool _hasDropped = false;
};

// The library knows best why a line is wrong.
LocalText::LocalText(std::string text, const std::string& source) : _text(std::move(text)) {
  for (TextLine line(_text); line.Next();) {
    if (line.GetKind() == Kind::kWrong) Parse(_text, source);
  }
}

IniFile LocalText::GetSettings() const {
  return Parse(_text, "settings text");
}

IniFile LocalText::GetGroups(const IsMeant& isMeant) const {
  std::string part;
  bool isOfPart = false;
  for (TextLine line(_text); line.Next();) {
    if (line.GetKind() == Kind::kHeader) isOfPart = isMeant(line.GetGroup());
    if (isOfPart && line.GetKind() != Kind::kOther) part.append(line.GetText()).append(1, '\n');
  }
  return Parse(part, "settings text");
}

void LocalText::GetEach(const IsMeant& isMeant, const TakeGroup& take) const {
  std::string part;
  const auto finishPart = [&] {
    if (!part.empty()) take(Parse(std::exchange(part, std::string()), "settings text"));
  };
  if (!IsAscending()) {
    const IniFile groups = GetGroups(isMeant);
    for (auto group = groups.begin(); group != groups.end(); ++group) {
      IniFile one;
      one.MergeGroup(group);
      take(one);
    }
    return;
  }
  bool isOfPart = false;
  for (TextLine line(_text); line.Next();) {
    if (line.GetKind() == Kind::kHeader) {
      finishPart();
      isOfPart = isMeant(line.GetGroup());
    }
    if (isOfPart && line.GetKind() != Kind::kOther) part.append(line.GetText()).append(1, '\n');
  }
  finishPart();
}

// Each group once, as an export has them.
bool LocalText::IsAscending() const {
  std::string last;
  bool isFirst = true;
  for (TextLine line(_text); line.Next();) {
    if (line.GetKind() != Kind::kHeader) continue;
    if (!std::exchange(isFirst, false) && line.GetGroup() <= last) return false;
    last = line.GetGroup();
  }
  return true;
}

bool LocalText::Change(const IsMeant& isGone, const IniFile& settings) {
  Edit edit;
  FindPlaces(isGone, settings, edit);
  PlanLines(settings, edit);
  if (edit.isChanged) _text = Rewrite(isGone, settings, edit);
  return edit.isChanged;
}

// The last of several lines for a key is the one that counts.
void LocalText::FindPlaces(const IsMeant& isGone, const IniFile& settings, Edit& edit) const {
  Remaining lines(_text, isGone, settings);
  const TextLine& line = lines.Get();
  for (bool isFirst = true; lines.Next();) {
    if (std::exchange(isFirst, false) && line.HasReturn()) edit.newLine = "\r\n";
    const auto changed = settings.GetGroups().find(line.GetGroup());
    const bool isSetting = line.GetKind() == Kind::kSetting;
    if ((!isSetting && line.GetKind() != Kind::kHeader) || changed == settings.end()) continue;
    Place& place = edit.places[line.GetGroup()];
    place.last = line.GetNumber();
    place.hasReturn = line.HasReturn();
    if (!isSetting) continue;
    const auto wanted = changed->second.find(line.ReadKey());
    if (wanted == changed->second.end()) continue;
    place.keys[wanted->first] = {line.GetNumber(), line.ReadValue() == wanted->second, line.HasReturn()};
  }
  edit.isChanged = lines.HasDropped();
}

// What is new goes behind the group's last setting, so that blank lines and comments before the next header stay before
// that.
void LocalText::PlanLines(const IniFile& settings, Edit& edit) {
  for (const auto& [group, keys] : settings) {
    const auto place = edit.places.find(group);
    if (place == edit.places.end()) {
      edit.isChanged = true;
      continue;
    }
    for (const auto& [key, value] : keys) {
      const auto line = place->second.keys.find(key);
      if (line == place->second.keys.end()) {
        edit.added[place->second.last] += MakeSetting(key, value, place->second.hasReturn);
      } else if (!line->second.isSame) {
        edit.replaced[line->second.number] = MakeSetting(key, value, line->second.hasReturn);
      }
    }
  }
  edit.isChanged = edit.isChanged || !edit.added.empty() || !edit.replaced.empty();
}

std::string LocalText::Rewrite(const IsMeant& isGone, const IniFile& settings, const Edit& edit) const {
  std::string text;
  text.reserve(_text.size() + RoomFor(settings));
  auto replaced = edit.replaced.begin();
  auto added = edit.added.begin();
  Remaining lines(_text, isGone, settings);
  for (const TextLine& line = lines.Get(); lines.Next();) {
    if (replaced != edit.replaced.end() && replaced->first == line.GetNumber()) {
      text += (replaced++)->second;
    } else {
      text.append(line.GetText()).append(1, '\n');
    }
    if (added != edit.added.end() && added->first == line.GetNumber()) text += (added++)->second;
  }
  for (const auto& group : settings) {
    if (edit.places.count(group.first) == 0) AddGroup(group, edit.newLine, text);
  }
  return text;
}

}  // namespace tavix::programs::cli
