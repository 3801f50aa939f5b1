#include "programs/server/history/EntryAnswer.h"

#include <cinttypes>
#include <cstdio>

#include "tavix/core/MemoryStream.h"

namespace tavix::daemon {

using core::IniFile;
using KeyMap = IniFile::KeyMap;

namespace {

constexpr std::string_view kWas = "was ";
constexpr std::string_view kIs = "is ";

// As settings text spells a group's first line, and the name of a key.
std::string SpellGroup(const std::string& name) {
  IniFile document;
  document[name];
  core::StringOstream out;
  document.SaveToStream(out);
  const std::string text = out.GetText();
  return text.substr(0, text.find('\n'));
}

std::string SpellKey(const std::string& name) {
  if (name.empty()) return "=";
  IniFile document;
  document[""].emplace(name, "");
  core::StringOstream out;
  document.SaveToStream(out);
  const std::string text = out.GetText();
  const size_t begin = text.find('\n') + 1;
  return text.substr(begin, text.find('=', begin) - begin);
}

void AddDocument(std::string_view mark, const IniFile& document, KeyMap& keys) {
  for (const auto& [name, settings] : document) {
    const std::string group = std::string(mark) + SpellGroup(name);
    if (settings.empty()) keys.emplace(group, "");
    for (const auto& [key, value] : settings) keys.emplace(group + SpellKey(key), value);
  }
}

}  // namespace

std::string NameOfRevision(uint64_t revision) {
  char name[24];
  std::snprintf(name, sizeof name, "%010" PRIu64, revision);
  return name;
}

void AddSettings(const HistoryEntry& entry, KeyMap& keys) {
  AddDocument(kWas, entry.was, keys);
  AddDocument(kIs, entry.is, keys);
}

void AddEntry(const HistoryEntry& entry, size_t omittedBytes, IniFile& answer) {
  KeyMap& keys = answer[NameOfRevision(entry.revision)];
  keys["by"] = entry.by;
  keys["command"] = entry.command;
  keys["time"] = std::to_string(entry.time);
  if (!entry.note.empty()) keys["note"] = entry.note;
  if (!entry.trial.empty()) keys["trial"] = entry.trial;
  if (omittedBytes > 0) {
    keys["omitted"] = std::to_string(omittedBytes);
  } else {
    AddSettings(entry, keys);
  }
}

}  // namespace tavix::daemon
