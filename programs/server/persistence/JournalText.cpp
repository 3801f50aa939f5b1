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
constexpr std::string_view kNextMark = "\n# change ";  // no text holds that
constexpr std::string_view kName = "# tavix-settings journal 1, ";
constexpr char kRecord[] = "# change %08zx %08zx ";
constexpr char kEnd[] = "%08" PRIx32 "\n";
constexpr size_t kRecordHeaderSize = 36;
constexpr size_t kMostBytesOfAText = 0xFFFFFFFF;

core::IniFile ParseText(std::string_view text) {
  core::IniFile document;
  core::ViewIstream in;
  in.SetText(text);
  document.LoadFromStream(in, "journal");
  return document;
}

template <class... Values>
std::string Format(const char* format, Values... values) {
  char text[kJournalHeaderSize + 1];
  return {text, static_cast<size_t>(std::snprintf(text, sizeof text, format, values...))};
}

// A record as it says of itself.
struct Record {
  size_t removed = 0;
  size_t set = 0;
  uint32_t checksum = 0;
  std::string_view texts;

  // Whether it is whole, and stands behind what gave that checksum.
  bool FollowsOn(uint32_t before) const {
    return Checksum(texts, Checksum(Format(kRecord, removed, set), before)) == checksum;
  }
};

// Without its texts.
std::optional<Record> ReadRecordHeader(std::string_view bytes) {
  const std::string header(bytes.substr(0, kRecordHeaderSize));
  Record record;
  if (std::sscanf(header.c_str(), "# change %zx %zx %" SCNx32, &record.removed, &record.set, &record.checksum) != 3)
    return std::nullopt;
  if (header != Format(kRecord, record.removed, record.set) + Format(kEnd, record.checksum)) return std::nullopt;
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

}  // namespace

Change DescribeChange(const core::IniFile& userSettings, const std::set<std::string>& changedGroups) {
  core::StringOstream set;
  core::IniFile removed;
  for (const std::string& name : changedGroups) {
    const auto group = userSettings.GetGroups().find(name);
    if (group == userSettings.GetGroups().end()) {
      removed[name];
    } else {
      core::IniFile::SaveGroupToStream(set, group);
    }
  }
  core::StringOstream gone;
  removed.SaveToStream(gone);
  return {gone.GetText(), set.GetText()};
}

void ApplyChange(core::IniFile& document, std::string_view removed, std::string_view set) {
  const core::IniFile gone = ParseText(removed);
  core::IniFile changed = ParseText(set);
  for (const auto& group : gone) document.RemoveGroup(group.first);
  for (const auto& group : changed) document.RemoveGroup(group.first);
  document.MergeSettings(std::move(changed));
}

std::string EncodeJournalHeader(const SnapshotId& follows, uint64_t wholeFrom) {
  std::string header = Format(kHeader, follows.generation, follows.checksum) + Format(kWhole, wholeFrom);
  header += Format(kEnd, Checksum(header));
  header.insert(header.size() - 1, kJournalHeaderSize - header.size(), ' ');
  return header;
}

uint32_t BeginJournalChecksum(const SnapshotId& follows) {
  return Checksum(Format(kHeader, follows.generation, follows.checksum));
}

std::string EncodeRecord(const Change& change, uint32_t& checksum) {
  if (std::max(change.removed.size(), change.set.size()) > kMostBytesOfAText)
    throw osa::Exception("A change of %zu bytes is more than a journal takes", change.set.size());
  std::string record = Format(kRecord, change.removed.size(), change.set.size());
  checksum = Checksum(change.set, Checksum(change.removed, Checksum(record, checksum)));
  record += Format(kEnd, checksum);
  record.reserve(record.size() + change.removed.size() + change.set.size());
  record += change.removed;
  record += change.set;
  return record;
}

bool IsBeginOfJournal(std::string_view bytes) {
  return kName.substr(0, bytes.size()) == bytes.substr(0, kName.size());
}

JournalReader::JournalReader(std::string_view bytes) : _bytes(bytes) {
  const std::string header(bytes.substr(0, kJournalHeaderSize));
  if (std::sscanf(header.c_str(), "# tavix-settings journal 1, follows %" SCNx64 " %" SCNx32 ", whole from %" SCNx64,
                  &_follows.generation, &_follows.checksum, &_wholeFrom) != 3)
    return;
  _isJournal = EncodeJournalHeader(_follows, _wholeFrom) == header;
  _checksum = BeginJournalChecksum(_follows);
  _end = kJournalHeaderSize;
}

bool JournalReader::Next() {
  const std::optional<Record> record = ReadRecord(_bytes.substr(std::min<uint64_t>(_end, _bytes.size())));
  if (!record || !record->FollowsOn(_checksum)) return false;
  _removed = record->texts.substr(0, record->removed);
  _set = record->texts.substr(record->removed);
  _checksum = record->checksum;
  _end += kRecordHeaderSize + record->texts.size();
  return true;
}

bool JournalReader::HasMore() const {
  return CountMore() > 0;
}

uint64_t JournalReader::CountMore() const {
  const size_t last = _bytes.find_last_not_of('\0');
  return last == std::string_view::npos || last < _end ? 0 : last + 1 - _end;
}

// A record tells the checksum that the next one starts with, whatever became of its own texts.
size_t JournalReader::FindLater() const {
  for (size_t at = _bytes.find(kMark, _end); at != std::string_view::npos; at = _bytes.find(kMark, at + 1)) {
    const std::optional<Record> before = ReadRecord(_bytes.substr(at));
    if (!before) continue;
    const size_t next = at + kRecordHeaderSize + before->texts.size();
    const std::optional<Record> later = ReadRecord(_bytes.substr(next));
    if (later && later->FollowsOn(before->checksum)) return next;
  }
  return std::string_view::npos;
}

bool JournalReader::IsRotten() const {
  if (!HasMore()) return false;
  const std::string_view rest = _bytes.substr(_end, CountMore());
  const auto wasWritten = [&](size_t size) { return rest.substr(0, size).find('\0') == std::string_view::npos; };
  const size_t next = rest.find(kNextMark);
  if (next != std::string_view::npos) return wasWritten(next);
  if (rest.size() < kRecordHeaderSize) return false;
  if (const std::optional<Record> record = ReadRecord(rest))
    return wasWritten(kRecordHeaderSize + record->texts.size());
  return !ReadRecordHeader(rest) && wasWritten(kRecordHeaderSize);
}

}  // namespace tavix::daemon
