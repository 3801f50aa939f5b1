#include "tavix/core/IniFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <iterator>
#include <new>
#include <string_view>

#include "tavix/core/AssignText.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/core/SettingsText.h"
#include "tavix/core/SideBySide.h"
#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"

namespace tavix::core {

namespace {

constexpr size_t kLargeText = 4 * 1024 * 1024;  // bytes, from which two threads read it

const std::string kNoValue;

void MergeKeys(IniFile::KeyMap& target, const IniFile::KeyMap& source) {
  if (target.empty()) {
    target = source;
    return;
  }
  for (const auto& [key, value] : source) {
    const auto [place, isNew] = target.try_emplace(key, value);
    if (!isNew) AssignText(place->second, value);
  }
}

// Moves every entry over; where a key exists on both sides the source's value wins.
void SpliceKeys(IniFile::KeyMap& target, IniFile::KeyMap& source) {
  if (target.empty()) {
    target.swap(source);
    return;
  }
  target.merge(source);
  for (auto& [key, value] : source) target[key] = std::move(value);
  source.clear();
}

// Whether all of "source" comes behind "target".
bool ComesBehind(const IniFile::GroupMap& source, const IniFile::GroupMap& target) {
  return target.empty() || source.empty() || target.rbegin()->first < source.begin()->first;
}

void Append(IniFile::GroupMap& target, IniFile::GroupMap&& source) {
  while (!source.empty()) target.insert(target.end(), source.extract(source.begin()));
}

IniFile::GroupMap CopyGroups(const IniFile::GroupMap& source) {
  constexpr size_t kLarge = 10000;  // groups
  if (source.size() < kLarge) return source;
  const auto middle = std::next(source.begin(), static_cast<std::ptrdiff_t>(source.size() / 2));
  IniFile::GroupMap copy;
  IniFile::GroupMap rest;
  RunSideBySide([&] { copy.insert(source.begin(), middle); }, [&] { rest.insert(middle, source.end()); });
  Append(copy, std::move(rest));
  return copy;
}

// isWanted: may be null, here and below.
IniFile ReadText(std::string_view text, const std::string& source, const IniFile::GroupFilter* isWanted) {
  SettingsTextReader reader(source, isWanted);
  reader.ReadLines(text.data(), text.data() + text.size());
  return IniFile(reader.TakeGroups());
}

// As ReadText, on a thread of its own. The GNU C library makes the memory of such a thread larger page by page, with a
// system call for each, but at once by so much as a block takes.
IniFile ReadTextBeside(std::string_view text, const std::string& source, const IniFile::GroupFilter* isWanted) {
  constexpr size_t kPiece = 16 * 1024;  // of the text, which takes several times as much
  constexpr size_t kBlock = 96 * 1024;  // less than what the system is asked for apart
  SettingsTextReader reader(source, isWanted);
  while (!text.empty()) {
    ::operator delete(::operator new(kBlock));
    const size_t feed = text.find('\n', kPiece);
    const size_t size = feed == std::string_view::npos ? text.size() : feed + 1;
    reader.ReadLines(text.data(), text.data() + size);
    text.remove_prefix(size);
  }
  return IniFile(reader.TakeGroups());
}

// Where a group begins about half-way through a large text; else its end.
size_t FindMiddle(std::string_view text) {
  if (text.size() < kLargeText) return text.size();
  const size_t feed = text.find("\n[", text.size() / 2);
  return feed == std::string_view::npos ? text.size() : feed + 1;
}

// An error names its line, which only a reader from the beginning knows.
IniFile ReadInHalves(std::string_view text, size_t middle, const std::string& source,
                     const IniFile::GroupFilter* isWanted) {
  IniFile document;
  IniFile rest;
  try {
    RunSideBySide([&] { document = ReadText(text.substr(0, middle), source, isWanted); },
                  [&] { rest = ReadTextBeside(text.substr(middle), source, isWanted); });
  } catch (const osa::Exception&) {
    return ReadText(text, source, isWanted);
  }
  document.MergeSettings(std::move(rest));
  return document;
}

IniFile ReadMemory(std::string_view text, const std::string& source, const IniFile::GroupFilter* isWanted) {
  const size_t middle = FindMiddle(text);
  return middle < text.size() ? ReadInHalves(text, middle, source, isWanted) : ReadText(text, source, isWanted);
}

IniFile ReadStream(std::istream& in, const std::string& source, const IniFile::GroupFilter* isWanted) {
  SettingsTextReader reader(source, isWanted);
  errno = 0;  // streams keep no reason of their own, and an old one would mislead
  reader.ReadStream(in);
  if (in.bad()) throw osa::Exception("Failed to read %s: %s", source.c_str(), std::strerror(errno ? errno : EIO));
  return IniFile(reader.TakeGroups());
}

// In bytes; 0: it is no regular file.
size_t SizeOfFile(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 && S_ISREG(status.st_mode) ? static_cast<size_t>(status.st_size) : 0;
}

}  // namespace

IniFile::IniFile(const char* path) {
  Load(path);
}

void IniFile::Load(const char* path) {
  LoadFile(path, nullptr);
}

void IniFile::LoadGroups(const char* path, const GroupFilter& isWanted) {
  LoadFile(path, &isWanted);
}

void IniFile::LoadFile(const char* path, const GroupFilter* isWanted) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw osa::Exception("Failed to open settings file '%s': %s", path, std::strerror(errno ? errno : EIO));
  const size_t size = SizeOfFile(path);
  if (size < kLargeText) return MergeSettings(ReadStream(file, path, isWanted));
  std::string text(size, '\0');
  errno = 0;
  file.read(text.data(), static_cast<std::streamsize>(size));
  if (file.bad()) throw osa::Exception("Failed to read %s: %s", path, std::strerror(errno ? errno : EIO));
  text.resize(static_cast<size_t>(file.gcount()));
  MergeSettings(ReadMemory(text, path, isWanted));
}

void IniFile::LoadFromString(const std::string& text) {
  LoadFromMemory(text, "settings text");
}

void IniFile::LoadFromStream(std::istream& in) {
  LoadFromStream(in, "settings text");
}

void IniFile::LoadFromStream(std::istream& in, const std::string& source) {
  MergeSettings(ReadStream(in, source, nullptr));
}

void IniFile::LoadFromStream(ViewIstream& in) {
  const std::string_view text = in.good() ? in.GetRest() : std::string_view();
  in.Skip(text.size());
  in.setstate(std::ios::eofbit);
  LoadFromMemory(text, "settings text");
}

void IniFile::LoadFromMemory(std::string_view text, const std::string& source) {
  MergeSettings(ReadMemory(text, source, nullptr));
}

void IniFile::SaveToStream(std::ostream& out) const {
  SettingsTextWriter writer(out);
  for (const auto& [name, keys] : _groups) writer.WriteGroup(name, keys);
  writer.Flush();
}

void IniFile::SaveGroupToStream(std::ostream& out, const std::string& group) const {
  const auto found = _groups.find(group);
  if (found != _groups.end()) SaveGroupToStream(out, found);
}

void IniFile::SaveGroupToStream(std::ostream& out, const_iterator group) {
  SettingsTextWriter writer(out);
  writer.WriteGroup(group->first, group->second);
  writer.Flush();
}

const std::string* IniFile::FindValue(const std::string& group, const std::string& key) const {
  const auto keys = _groups.find(group);
  if (keys == _groups.end()) return nullptr;
  const auto value = keys->second.find(key);
  return value == keys->second.end() ? nullptr : &value->second;
}

const std::string& IniFile::GetValue(const std::string& group, const std::string& key) const {
  if (const std::string* value = FindValue(group, key)) return *value;
  throw osa::Exception("No setting '[%s]%s'", group.c_str(), key.c_str());
}

const std::string& IniFile::GetValueOrDefault(const std::string& group, const std::string& key) const {
  const std::string* value = FindValue(group, key);
  return value ? *value : kNoValue;
}

int IniFile::GetIntOrDefault(const std::string& group, const std::string& key, int def) const {
  const std::string* text = FindValue(group, key);
  int value = 0;
  return text && StringUtil::TryParse(*text, value) ? value : def;
}

bool IniFile::GetBoolOrDefault(const std::string& group, const std::string& key, bool def) const {
  const std::string* text = FindValue(group, key);
  if (!text) return def;
  for (const char* yes : {"true", "yes", "on", "1"}) {
    if (StringUtil::EqualsIgnoringCase(*text, yes)) return true;
  }
  for (const char* no : {"false", "no", "off", "0"}) {
    if (StringUtil::EqualsIgnoringCase(*text, no)) return false;
  }
  return def;
}

void IniFile::SetValue(const std::string& group, const std::string& key, const std::string& value) {
  _groups[group].insert_or_assign(key, value);
}

void IniFile::SetInt(const std::string& group, const std::string& key, int value) {
  SetValue(group, key, std::to_string(value));
}

bool IniFile::HasGroup(const std::string& group) const {
  return _groups.count(group) != 0;
}

bool IniFile::HasValue(const std::string& group, const std::string& key) const {
  return FindValue(group, key) != nullptr;
}

void IniFile::RemoveGroup(const std::string& group) {
  _groups.erase(group);
}

void IniFile::RemoveGroup(const iterator& group) {
  _groups.erase(group);
}

void IniFile::MergeSettings(const IniFile& src) {
  if (this == &src) return;
  if (_groups.empty()) {
    _groups = CopyGroups(src._groups);
    return;
  }
  for (const auto& [name, keys] : src._groups) MergeKeys(_groups[name], keys);
}

void IniFile::MergeSettings(IniFile&& src) {
  if (this == &src) return;
  if (_groups.empty()) {
    _groups.swap(src._groups);
    return;
  }
  if (ComesBehind(src._groups, _groups)) return Append(_groups, std::move(src._groups));
  _groups.merge(src._groups);
  for (auto& [name, keys] : src._groups) SpliceKeys(_groups[name], keys);
  src.Clear();
}

void IniFile::MergeSettings(const IniFile& src, const std::string& group) {
  if (this == &src) return;
  const auto found = src._groups.find(group);
  if (found != src._groups.end()) MergeGroup(found);
}

void IniFile::MergeGroup(const_iterator group) {
  MergeKeys(_groups[group->first], group->second);
}

bool IniFile::ContainsSettings(const IniFile& other) const {
  for (const auto& [name, keys] : other._groups) {
    for (const auto& [key, value] : keys) {
      const std::string* mine = FindValue(name, key);
      if (!mine || *mine != value) return false;
    }
  }
  return true;
}

void IniFile::ValueListAppendUnique(const std::string& name, const std::string& value) {
  ValueListAppendUnique(name, std::set<std::string>{value});
}

void IniFile::ValueListAppendUnique(const std::string& name, const std::set<std::string>& values) {
  if (values.empty()) return;
  KeyMap& list = _groups[name];
  std::set<std::string_view> members;
  for (const auto& entry : list) members.insert(entry.second);
  for (const std::string& value : values) {
    if (!members.insert(value).second) continue;
    std::string key = value;
    while (list.count(key) != 0) key += '~';
    list.emplace(std::move(key), value);
  }
}

const IniFile::KeyMap& IniFile::operator[](const std::string& group) const {
  const auto found = _groups.find(group);
  if (found == _groups.end()) throw osa::Exception("No settings group '%s'", group.c_str());
  return found->second;
}

}  // namespace tavix::core
