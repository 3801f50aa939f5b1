#include "programs/server/persistence/JournalText.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "programs/server/persistence/Checksum.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr char kHeader[] = "# tavix-settings journal 1, follows %016" PRIx64 ", ";
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

std::string EncodeJournalHeader(uint64_t follows, uint32_t& checksum) {
  std::string header = Format(kHeader, follows);
  checksum = Checksum(header);
  header += Format(kEnd, checksum);
  header.insert(header.size() - 1, kJournalHeaderSize - header.size(), ' ');
  return header;
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

JournalReader::JournalReader(std::string_view bytes) : _bytes(bytes) {
  const std::string header(bytes.substr(0, kJournalHeaderSize));
  if (std::sscanf(header.c_str(), "# tavix-settings journal 1, follows %" SCNx64, &_follows) != 1) return;
  _isJournal = EncodeJournalHeader(_follows, _checksum) == header;
  _end = kJournalHeaderSize;
}

bool JournalReader::Next() {
  const std::string header(_bytes.substr(std::min<uint64_t>(_end, _bytes.size()), kRecordHeaderSize));
  size_t removed = 0;
  size_t set = 0;
  uint32_t checksum = 0;
  if (std::sscanf(header.c_str(), "# change %zx %zx %" SCNx32, &removed, &set, &checksum) != 3) return false;
  const std::string start = Format(kRecord, removed, set);
  if (header != start + Format(kEnd, checksum)) return false;
  const std::string_view texts = _bytes.substr(_end + kRecordHeaderSize);
  if (texts.size() < removed || texts.size() - removed < set) return false;
  if (Checksum(texts.substr(0, removed + set), Checksum(start, _checksum)) != checksum) return false;
  _removed = texts.substr(0, removed);
  _set = texts.substr(removed, set);
  _checksum = checksum;
  _end += kRecordHeaderSize + removed + set;
  return true;
}

bool JournalReader::HasMore() const {
  return _end < _bytes.size() && _bytes.find_first_not_of('\0', _end) != std::string_view::npos;
}

}  // namespace tavix::daemon
