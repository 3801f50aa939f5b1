#include "programs/server/persistence/JournalText.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <optional>

#include "programs/server/persistence/Checksum.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr char kHeader[] = "# tavix-settings journal 1, follows %016" PRIx64 " %08" PRIx32;
constexpr char kWhole[] = ", whole from %016" PRIx64 ", ";
constexpr std::string_view kMark = "# change ";
constexpr std::string_view kExtendingMark = "# extend ";
constexpr std::string_view kBeginOfMarks = "# ";
constexpr std::string_view kName = "# tavix-settings journal 1, ";
constexpr char kEnd[] = "%08" PRIx32 "\n";
constexpr size_t kRecordHeaderSize = 36;
constexpr size_t kMaxTextBytes = 0xFFFFFFFF;

core::IniFile ParseText(std::string_view text) {
  core::IniFile document;
  document.LoadFromMemory(text, "journal");
  return document;
}

template <class... Values>
std::string Format(const char* format, Values... values) {
  char text[kJournalHeaderSize + 1];
  return {text, static_cast<size_t>(std::snprintf(text, sizeof text, format, values...))};
}

// Eight digits, for each change: printf takes longer than all else that makes a record.
void AppendHex(std::string& text, uint32_t value) {
  char digits[8];
  for (char& digit : digits) {
    digit = "0123456789abcdef"[value >> 28];
    value <<= 4;
  }
  text.append(digits, sizeof digits);
}

// The sizes are kMaxTextBytes at most.
std::string BeginRecord(bool extends, size_t removed, size_t set) {
  std::string text;
  text.reserve(kRecordHeaderSize);
  text.append(extends ? kExtendingMark : kMark);
  AppendHex(text, static_cast<uint32_t>(removed));
  text.push_back(' ');
  AppendHex(text, static_cast<uint32_t>(set));
  text.push_back(' ');
  return text;
}

bool IsMark(std::string_view bytes) {
  const std::string_view begin = bytes.substr(0, kMark.size());
  return begin == kMark || begin == kExtendingMark;
}

// Where the next mark of a record stands, from there on. No text holds one at the begin of a line.
size_t FindMark(std::string_view bytes, size_t from) {
  size_t at = bytes.find(kBeginOfMarks, from);
  while (at != std::string_view::npos && !IsMark(bytes.substr(at))) at = bytes.find(kBeginOfMarks, at + 1);
  return at;
}

// The same for one that begins a line, not the first: where its line feed stands.
size_t FindNextMark(std::string_view bytes) {
  size_t at = FindMark(bytes, 1);
  while (at != std::string_view::npos && bytes[at - 1] != '\n') at = FindMark(bytes, at + 1);
  return at == std::string_view::npos ? at : at - 1;
}

// A record by the fields of its own line.
struct Record {
  bool extends = false;
  size_t removed = 0;
  size_t set = 0;
  uint32_t checksum = 0;
  std::string_view texts;

  // Whether it is whole, and stands behind what gave that checksum.
  bool FollowsOn(uint32_t before) const {
    return Checksum(texts, Checksum(BeginRecord(extends, removed, set), before)) == checksum;
  }
};

// Without its texts.
std::optional<Record> ReadRecordHeader(std::string_view bytes) {
  if (!IsMark(bytes)) return std::nullopt;
  const std::string header(bytes.substr(0, kRecordHeaderSize));
  Record record;
  record.extends = header.compare(0, kMark.size(), kExtendingMark) == 0;
  const char* const figures = header.c_str() + kMark.size();
  if (std::sscanf(figures, "%zx %zx %" SCNx32, &record.removed, &record.set, &record.checksum) != 3)
    return std::nullopt;
  // sscanf also takes blanks, signs and capitals: only a line as we write it counts.
  if (header != RecordLine{record.extends, record.removed, record.set}.Encode(record.checksum)) return std::nullopt;
  return record;
}

// None when its texts are not all there.
std::optional<Record> ReadRecord(std::string_view bytes) {
  std::optional<Record> record = ReadRecordHeader(bytes);
  if (!record) return record;
  record->texts = bytes.substr(kRecordHeaderSize);
  if (record->texts.size() < record->removed || record->texts.size() - record->removed < record->set)
    return std::nullopt;
  record->texts = record->texts.substr(0, record->removed + record->set);
  return record;
}

// What a change adds to groups that it does not replace. Empty, as a rule.
core::IniFile FindExtensions(const std::set<std::string>& changedGroups, const core::IniFile& added) {
  core::IniFile extensions;
  for (auto group = added.begin(); group != added.end(); ++group) {
    if (changedGroups.count(group->first) == 0) extensions.MergeGroup(group);
  }
  return extensions;
}

}  // namespace

Change DescribeChange(const settings::server::LayerView& userSettings, const std::set<std::string>& changedGroups,
                      const core::IniFile& added) {
  const core::IniFile extensions = FindExtensions(changedGroups, added);
  const bool extends = !extensions.IsEmpty();
  core::StringOstream out;
  core::IniFile removed;
  for (const std::string& name : changedGroups) {
    const auto group = userSettings.Find(name);
    if (!group || extends) removed[name];
    if (group) core::IniFile::SaveGroupToStream(out, *group);
  }
  if (extends) extensions.SaveToStream(out);
  Change change{{}, out.TakeText(), extends};
  out.Reset(0);
  removed.SaveToStream(out);
  change.removed = out.TakeText();
  return change;
}

void ApplyChange(core::IniFile& document, std::string_view removed, std::string_view set, bool extends) {
  const core::IniFile gone = ParseText(removed);
  core::IniFile changed = ParseText(set);
  for (const auto& group : gone) document.RemoveGroup(group.first);
  if (!extends) {
    for (const auto& group : changed) document.RemoveGroup(group.first);
  }
  document.MergeSettings(std::move(changed));
}

bool MakesDifference(const core::IniFile& document, std::string_view removed, std::string_view set, bool extends) {
  core::IniFile touched = ParseText(removed);
  touched.MergeSettings(ParseText(set));
  core::IniFile before;
  for (const auto& group : touched) before.MergeSettings(document, group.first);
  core::IniFile after = before;
  ApplyChange(after, removed, set, extends);
  return after.GetGroups() != before.GetGroups();
}

// The checksum is that of the first version.
std::string EncodeJournalHeader(const SnapshotId& follows, uint64_t wholeFrom, bool extends) {
  std::string header = Format(kHeader, follows.generation, follows.checksum) + Format(kWhole, wholeFrom);
  header += Format(kEnd, Checksum(header));
  header.insert(header.size() - 1, kJournalHeaderSize - header.size(), ' ');
  if (extends) header[kJournalVersionAt] = kExtendingVersion;
  return header;
}

uint32_t BeginJournalChecksum(const SnapshotId& follows) {
  return Checksum(Format(kHeader, follows.generation, follows.checksum));
}

uint64_t RecordLine::CountRecordBytes() const {
  return uint64_t{kRecordHeaderSize} + removed + set;
}

uint32_t RecordLine::BeginChecksum(uint32_t before) const {
  if (std::max(removed, set) > kMaxTextBytes)
    throw osa::Exception("A change of %zu bytes is more than a journal takes", set);
  return Checksum(BeginRecord(extends, removed, set), before);
}

std::string RecordLine::Encode(uint32_t checksum) const {
  std::string line = BeginRecord(extends, removed, set);
  AppendHex(line, checksum);
  line.push_back('\n');
  return line;
}

std::string EncodeRecord(const Change& change, uint32_t& checksum) {
  const RecordLine line{change.extends, change.history.size() + change.removed.size(), change.set.size()};
  checksum = line.BeginChecksum(checksum);
  for (const std::string* text : {&change.history, &change.removed, &change.set}) checksum = Checksum(*text, checksum);
  std::string record = line.Encode(checksum);
  record.reserve(record.size() + line.removed + line.set);
  record += change.history;
  record += change.removed;
  record += change.set;
  return record;
}

bool IsBeginOfJournal(std::string_view bytes) {
  std::string begin(bytes.substr(0, kName.size()));
  if (begin.size() > kJournalVersionAt && begin[kJournalVersionAt] == kExtendingVersion)
    begin[kJournalVersionAt] = kName[kJournalVersionAt];
  return kName.substr(0, begin.size()) == begin;
}

JournalReader::JournalReader(std::string_view bytes) : _bytes(bytes) {
  std::string header(bytes.substr(0, kJournalHeaderSize));
  if (!IsBeginOfJournal(header)) return;
  _hasExtendingVersion = header.size() > kJournalVersionAt && header[kJournalVersionAt] == kExtendingVersion;
  if (_hasExtendingVersion) header[kJournalVersionAt] = kName[kJournalVersionAt];
  if (std::sscanf(header.c_str(), "# tavix-settings journal 1, follows %" SCNx64 " %" SCNx32 ", whole from %" SCNx64,
                  &_follows.generation, &_follows.checksum, &_wholeFrom) != 3)
    return;
  _isJournal = EncodeJournalHeader(_follows, _wholeFrom) == header;
  _checksum = BeginJournalChecksum(_follows);
  _end = kJournalHeaderSize;
}

bool JournalReader::Next() {
  const std::optional<Record> record = ReadRecord(_bytes.substr(std::min(_end, _bytes.size())));
  if (!record || !record->FollowsOn(_checksum)) return false;
  _removed = record->texts.substr(0, record->removed);
  _set = record->texts.substr(record->removed);
  _extends = record->extends;
  _checksum = record->checksum;
  _end += kRecordHeaderSize + record->texts.size();
  return true;
}

bool JournalReader::HasMore() const {
  return CountMore() > 0;
}

size_t JournalReader::CountMore() const {
  const size_t last = _bytes.find_last_not_of('\0');
  return last == std::string_view::npos || last < _end ? 0 : last + 1 - _end;
}

// A record holds the checksum that the next one starts with, even if its own texts are damaged.
size_t JournalReader::FindLater() const {
  for (size_t at = FindMark(_bytes, static_cast<size_t>(_end)); at != std::string_view::npos;
       at = FindMark(_bytes, at + 1)) {
    const std::optional<Record> before = ReadRecord(_bytes.substr(at));
    if (!before) continue;
    const size_t next = at + kRecordHeaderSize + before->texts.size();
    const std::optional<Record> later = ReadRecord(_bytes.substr(next));
    if (later && later->FollowsOn(before->checksum)) return next;
  }
  return std::string_view::npos;
}

// A write that the power cut off leaves zeros, or the end of the file, inside its record. So a record that has no zero
// up to the next record's mark, or up to the end that its own line gives, was written whole: when it does not count all
// the same, its bytes have changed since.
bool JournalReader::IsRotten() const {
  if (!HasMore()) return false;
  const std::string_view rest = _bytes.substr(_end, CountMore());
  const auto wasWritten = [&](size_t size) { return rest.substr(0, size).find('\0') == std::string_view::npos; };
  const size_t next = FindNextMark(rest);
  if (next != std::string_view::npos) return wasWritten(next);
  if (rest.size() < kRecordHeaderSize) return false;
  if (const std::optional<Record> record = ReadRecord(rest))
    return wasWritten(kRecordHeaderSize + record->texts.size());
  return !ReadRecordHeader(rest) && wasWritten(kRecordHeaderSize);
}

}  // namespace tavix::daemon
