#include "programs/server/persistence/HistoryText.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <utility>

#include "programs/server/trials/TrialText.h"
#include "tavix/core/MemoryStream.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::ChangeOrigin;
using settings::server::ClientIdentity;
using settings::server::ISettingsPersister;

namespace {

constexpr std::string_view kNote = "#n ";
constexpr std::string_view kTrial = "#t ";
constexpr std::string_view kWas = "#- ";
constexpr std::string_view kWasNot = "#! ";
constexpr std::string_view kIs = "#+ ";
constexpr char kNobody[] = "-";
constexpr char kNoteKey[] = "n";

std::string TextOf(const IniFile& document) {
  core::StringOstream out;
  document.SaveToStream(out);
  return out.GetText();
}

// Takes the next line, without its line feed.
std::string_view TakeLine(std::string_view& text) {
  const size_t feed = text.find('\n');
  const std::string_view line = text.substr(0, feed);
  text.remove_prefix(feed == std::string_view::npos ? text.size() : feed + 1);
  return line;
}

bool BeginsWith(std::string_view text, std::string_view begin) {
  return text.substr(0, begin.size()) == begin;
}

// A line for each setting, and for each group without any. hasValues: else the "=" is left out, but where the key is
// empty: an empty group would look the same.
void AppendLines(std::string& lines, std::string_view mark, const IniFile& document, bool hasValues) {
  const std::string text = TextOf(document);
  std::string_view group;
  bool isEmpty = false;
  const auto append = [&](std::string_view setting) {
    lines.append(mark).append(group).append(setting).append(1, '\n');
  };
  for (std::string_view rest = text; !rest.empty();) {
    std::string_view line = TakeLine(rest);
    if (line.front() == '[') {
      if (isEmpty) append({});
      group = line;
      isEmpty = true;
      continue;
    }
    isEmpty = false;
    if (!hasValues && line.size() > 1) line.remove_suffix(1);
    append(line);
  }
  if (isEmpty) append({});
}

// A line of AppendLines, behind its mark. A name holds no "]" that is not escaped.
void ReadSetting(std::string_view line, IniFile& document) {
  const size_t end = line.find(']');
  if (end == std::string_view::npos || line.front() != '[') return;
  std::string text(line.substr(0, end + 1));
  const std::string_view setting = line.substr(end + 1);
  if (!setting.empty()) text.append(1, '\n').append(setting);
  if (!setting.empty() && setting.find('=') == std::string_view::npos) text += '=';
  document.LoadFromMemory(text, "history");
}

std::string SpellNote(const std::string& note) {
  IniFile document;
  document[""][kNoteKey] = note;
  const std::string text = TextOf(document);
  return text.substr(text.find('=') + 1);  // with its line feed
}

std::string ReadNote(std::string_view line) {
  IniFile document;
  document.LoadFromMemory(std::string("[]\nn=").append(line), "history");
  return document.GetValueOrDefault("", kNoteKey);
}

int64_t GetTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// Of `SECONDS NAME`, or of the name alone.
std::string_view FindTrialName(std::string_view order) {
  constexpr char kBlanks[] = " \t";
  order = order.substr(0, order.find_last_not_of(kBlanks) + 1);
  return order.substr(order.find_last_of(kBlanks) + 1);
}

// False: it is no first line.
bool ReadFirstLine(std::string_view line, HistoryEntry& entry) {
  const std::string text(line);
  int command = 0;
  int commandEnd = 0;
  const int read = std::sscanf(text.c_str(), "#@ %" SCNu64 " %" SCNd64 " %n%*s%n", &entry.revision, &entry.time,
                               &command, &commandEnd);
  if (read != 2 || commandEnd <= command) return false;
  const auto begin = static_cast<size_t>(command);
  const auto end = static_cast<size_t>(commandEnd);
  entry.command = text.substr(begin, end - begin);
  entry.by = end < text.size() ? text.substr(end + 1) : "";
  return true;
}

void ReadLine(std::string_view line, HistoryEntry& entry) {
  const std::string_view rest = line.substr(std::min(line.size(), kWas.size()));
  if (BeginsWith(line, kNote)) entry.note = ReadNote(rest);
  if (BeginsWith(line, kTrial)) entry.trial = rest;
  if (BeginsWith(line, kWas)) ReadSetting(rest, entry.was);
  if (BeginsWith(line, kWasNot)) ReadSetting(rest, entry.wasNot);
  if (BeginsWith(line, kIs)) ReadSetting(rest, entry.is);
}

}  // namespace

size_t FindLine(std::string_view bytes, std::string_view mark, size_t from) {
  size_t at = bytes.find(mark, from);
  while (at != std::string_view::npos && at > 0 && bytes[at - 1] != '\n') at = bytes.find(mark, at + 1);
  return at;
}

uint64_t RevisionOf(std::string_view lines) {
  constexpr size_t kMaxBytes = 32;
  const std::string line(lines.substr(0, kMaxBytes));
  uint64_t revision = 0;
  return std::sscanf(line.c_str(), "#@ %" SCNu64, &revision) == 1 ? revision : 0;
}

HistoryLines EncodeEntry(const HistoryEntry& entry) {
  HistoryLines lines;
  lines.change = std::to_string(entry.time) + " " + entry.command + " " + entry.by + "\n";
  if (!entry.note.empty()) lines.change.append(kNote).append(SpellNote(entry.note));
  if (!entry.trial.empty()) lines.change.append(kTrial).append(entry.trial).append(1, '\n');
  AppendLines(lines.change, kWas, entry.was, true);
  AppendLines(lines.change, kWasNot, entry.wasNot, false);
  AppendLines(lines.now, kIs, entry.is, true);
  return lines;
}

std::string SpellEntry(uint64_t revision, std::string_view change) {
  return std::string(kEntryMark).append(std::to_string(revision)).append(1, ' ').append(change);
}

HistoryEntry DescribeForHistory(const ISettingsPersister::SavedChange& change, int64_t time) {
  HistoryEntry entry;
  entry.time = time;
  entry.command = change.origin.command.empty() ? kNobody : std::string(change.origin.command);
  entry.by = SpellClient(change.origin.client);
  entry.note = change.origin.note;
  entry.trial = FindTrialName(change.origin.trial);
  for (const std::string& name : change.changedGroups)
    AddDifference(name, FindGroup(*change.before, name), change.userSettings.FindKeys(name), entry);
  // All that others of these groups got is new, and nothing else of them differs.
  for (const auto& [name, keys] : change.added) {
    if (change.changedGroups.count(name) == 0) AddDifference(name, FindGroup(*change.before, name), &keys, entry);
  }
  return entry;
}

HistoryEntry MakeGap() {
  HistoryEntry gap;
  gap.time = GetTime();
  gap.command = kGapCommand;
  gap.by = SpellClient({ClientIdentity::Connection::kDaemon});
  return gap;
}

// A change that readers alone notice, such as the end of what was not to be saved, is none of the user settings.
DescribedChange TryToDescribeForHistory(const ISettingsPersister::SavedChange& change) {
  try {
    const HistoryEntry entry = DescribeForHistory(change, GetTime());
    if (entry.IsEmpty()) return {false, std::nullopt};
    return {true, EncodeEntry(entry)};
  } catch (const std::exception&) {
    return {};  // a revision that lacks one shows that an entry is missing
  }
}

HistoryEntry ReadHead(std::string_view lines) {
  HistoryEntry entry;
  ReadFirstLine(TakeLine(lines), entry);
  while (BeginsWith(lines, kNote) || BeginsWith(lines, kTrial)) ReadLine(TakeLine(lines), entry);
  return entry;
}

std::vector<HistoryEntry> ReadEntries(std::string_view text) {
  std::vector<HistoryEntry> entries;
  bool isInEntry = false;
  while (!text.empty() && text.front() == '#') {
    const std::string_view line = TakeLine(text);
    if (BeginsWith(line, kEntryMark)) {
      HistoryEntry entry;
      isInEntry = ReadFirstLine(line, entry);
      if (isInEntry) entries.push_back(std::move(entry));
    } else if (isInEntry) {
      ReadLine(line, entries.back());
    }
  }
  return entries;
}

}  // namespace tavix::daemon
