#include "programs/server/persistence/HistoryFile.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "programs/server/persistence/Checksum.h"

namespace tavix::daemon {

namespace {

constexpr std::string_view kEndMark = "#. ";
constexpr size_t kEndLineBytes = 12;  // with its checksum and its line feed
constexpr char kEndLine[] = "#. %08" PRIx32 "\n";

std::string EndLineOf(std::string_view lines) {
  char line[kEndLineBytes + 1];
  return {line, static_cast<size_t>(std::snprintf(line, sizeof line, kEndLine, Checksum(lines)))};
}

// Where the next line begins so, from there on. npos: nowhere.
size_t FindLine(std::string_view bytes, std::string_view mark, size_t from) {
  size_t at = bytes.find(mark, from);
  while (at != std::string_view::npos && at > 0 && bytes[at - 1] != '\n') at = bytes.find(mark, at + 1);
  return at;
}

uint64_t RevisionOf(std::string_view lines) {
  const std::string line(lines.substr(0, lines.find('\n')));
  uint64_t revision = 0;
  return std::sscanf(line.c_str(), "#@ %" SCNu64, &revision) == 1 ? revision : 0;
}

// lines: of an entry.
bool IsGap(std::string_view lines) {
  const HistoryEntry entry = ReadHead(lines);
  return entry.command == kGapCommand;
}

// Whether these bytes were never a history: no entry begins there, and the power left no zeros.
bool IsForeign(std::string_view bytes) {
  const bool mayBeTorn = kEntryMark.substr(0, bytes.size()) == bytes || bytes.find('\0') != std::string_view::npos;
  return !mayBeTorn && FindLine(bytes, kEntryMark, 0) == std::string_view::npos;
}

void ReportDamage(size_t damaged, const std::string& path, std::vector<std::string>& problems) {
  if (damaged == 0) return;
  problems.push_back("'" + path + "' is damaged: " + std::to_string(damaged) +
                     " entries of the history can't be read, and are skipped");
}

}  // namespace

std::string SealEntry(uint64_t revision, const HistoryLines& lines) {
  std::string text = SpellEntry(revision, lines.change);
  text += lines.now;
  return text + EndLineOf(text);
}

// What stands between two entries is damage, as an entry is whose checksum is wrong.
bool HistoryReader::Next() {
  while (_at < _bytes.size()) {
    const size_t begin = FindLine(_bytes, kEntryMark, _at);
    if (begin != _at) ++_damaged;
    if (begin == std::string_view::npos) break;
    const size_t next = std::min(FindLine(_bytes, kEntryMark, begin + 1), _bytes.size());
    const size_t end = FindLine(_bytes.substr(0, next), kEndMark, begin);
    _at = end == std::string_view::npos ? next : std::min(next, end + kEndLineBytes);
    if (end != std::string_view::npos &&
        _bytes.substr(end, _at - end) == EndLineOf(_bytes.substr(begin, end - begin))) {
      _lines = _bytes.substr(begin, end - begin);
      _begin = begin;
      _end = _at;
      return true;
    }
    ++_damaged;
  }
  _at = _bytes.size();
  // One entry that was not finished, or zeros that the power left in its place.
  const bool hasTornEnd = _end < _bytes.size() && FindLine(_bytes, kEndMark, _end) == std::string_view::npos;
  if (hasTornEnd && _damaged > 0) --_damaged;
  return false;
}

// What can't be read at the end is dropped: what is appended takes its place. So is what stands behind damage among
// the entries that the journal has: appended once more, all stand in their order.
uint64_t HistoryFile::Load(uint64_t journalBegin, std::vector<std::string>& problems) {
  _file.reset();
  HistoryParts parts(GetGeneration() + 1);
  _last = LoadOld(parts, problems);
  const std::string path = PathOf(_snapshotPath);
  const FileContent content = Read(path, problems);
  _exists = content.exists && content.problem.empty();
  _isForeign = content.exists && (!content.isRegular || IsForeign(content.bytes));
  _isKnown = true;
  _end = 0;
  _journalBegin = journalBegin;
  _journaled.clear();
  HistoryReader reader(content.bytes);
  size_t damaged = 0;  // before the entries that the journal may have
  while (reader.Next()) {
    const uint64_t revision = RevisionOf(reader.GetLines());
    const bool isJournaled = journalBegin > 0 && revision >= journalBegin;
    if (isJournaled && reader.CountDamaged() > damaged) break;
    if (isJournaled) _journaled.insert(revision);
    damaged = reader.CountDamaged();
    parts.Add(revision, IsGap(reader.GetLines()), reader.GetBegin(), reader.GetEnd() - reader.GetBegin());
    _last = std::max(_last, revision);
    _end = reader.GetEnd();
  }
  ReportDamage(journalBegin == 0 ? reader.CountDamaged() : damaged, path, problems);
  SetParts(std::move(parts));
  return _last;
}

uint64_t HistoryFile::LoadOld(HistoryParts& parts, std::vector<std::string>& problems) {
  const std::string path = OldPathOf(_snapshotPath);
  const FileContent content = Read(path, problems);
  HistoryReader reader(content.bytes);
  uint64_t last = 0;
  while (reader.Next()) {
    const uint64_t revision = RevisionOf(reader.GetLines());
    last = std::max(last, revision);
    parts.Add(revision, IsGap(reader.GetLines()), reader.GetBegin(), reader.GetEnd() - reader.GetBegin());
  }
  parts.Rotate();
  ReportDamage(reader.CountDamaged(), path, problems);
  return last;
}

// Without bytes when it can't be read.
FileContent HistoryFile::Read(const std::string& path, std::vector<std::string>& problems) {
  FileContent content = _files.Read(path);
  if (content.problem.empty()) return content;
  problems.push_back("The history in '" + path + "' can't be read: " + content.problem);
  content.bytes.clear();
  return content;
}

void HistoryFile::Append(const HistoryItems& entries) {
  const uint64_t lost = _lost;
  for (const auto& entry : entries) _lost = std::max(_lost, entry->revision);
  try {
    Open();
    std::string text;
    if (lost > _last) AddOne(lost, EncodeEntry(MakeGap()), text);
    for (const auto& entry : entries) AddOne(entry->revision, entry->lines, text);
    Write(text);
    _lost = 0;
  } catch (...) {
    _file.reset();
    _isKnown = false;
    _written.clear();
    throw;
  }
}

bool HistoryFile::Has(uint64_t revision) const {
  if (revision > _last) return false;
  return _journalBegin == 0 || revision < _journalBegin || _journaled.count(revision) != 0;
}

// text: what is to be written.
void HistoryFile::AddOne(uint64_t revision, const HistoryLines& lines, std::string& text) {
  if (Has(revision)) return;
  const std::string one = SealEntry(revision, lines);
  const size_t before = _end + text.size();
  if (before > 0 && before + one.size() > _maxBytes / 2) {
    Write(std::exchange(text, {}));
    Rotate();
  }
  _written.push_back({revision, IsGap(one), _end + text.size(), one.size()});
  text += one;
  _last = std::max(_last, revision);
}

// After a failure nobody knows what the file holds.
void HistoryFile::Open() {
  if (_file) return;
  std::vector<std::string> reported;
  if (!_isKnown) Load(0, reported);
  if (_isForeign)
    throw osa::Exception("'%s' holds something else than a history, and is left as it is",
                         PathOf(_snapshotPath).c_str());
  if (!_exists) return;
  _file = _files.Open(PathOf(_snapshotPath));
  _file->Truncate(_end);
  _isSynced = false;
}

void HistoryFile::Rotate() {
  _file.reset();
  if (_exists) {
    const osa::PlainMutexLock names(_nameMutex);
    _files.Rename(PathOf(_snapshotPath), OldPathOf(_snapshotPath));
    const osa::PlainMutexLock lock(_mutex);
    _parts.Rotate();
  }
  _exists = false;
  _end = 0;
}

// What an earlier daemon left may not be on the disk yet, and the journal that has it as well loses its name next.
void HistoryFile::Write(const std::string& text) {
  if (text.empty() && (!_file || _isSynced)) return;
  if (!_file) {
    _file = _files.Create(PathOf(_snapshotPath));
    _isSynced = false;
  }
  if (!text.empty()) _file->WriteAt(_end, text);
  _file->Sync();
  if (!_isSynced) _files.SyncDirectoryOf(_snapshotPath);
  _isSynced = true;
  _exists = true;
  _end += text.size();
  const osa::PlainMutexLock lock(_mutex);
  for (const Written& entry : _written) _parts.Add(entry.revision, entry.isGap, entry.offset, entry.bytes);
  _written.clear();
}

void HistoryFile::SetParts(HistoryParts&& parts) {
  const osa::PlainMutexLock lock(_mutex);
  _parts = std::move(parts);
}

uint64_t HistoryFile::GetGeneration() const {
  const osa::PlainMutexLock lock(_mutex);
  return _parts.GetGeneration();
}

HistoryParts::Range HistoryFile::GetRange() const {
  const osa::PlainMutexLock lock(_mutex);
  return _parts.GetRange();
}

std::optional<HistoryParts::Part> HistoryFile::FindPart(uint64_t revision) const {
  const osa::PlainMutexLock lock(_mutex);
  return _parts.FindBelow(revision);
}

std::optional<std::string> HistoryFile::ReadPart(const HistoryParts::Part& part, size_t maxBytes) const {
  const osa::PlainMutexLock names(_nameMutex);
  if (GetGeneration() != part.generation) return std::nullopt;
  const std::string path = part.isOld ? OldPathOf(_snapshotPath) : PathOf(_snapshotPath);
  return _files.ReadPart(path, part.offset, std::min(part.bytes, maxBytes));
}

}  // namespace tavix::daemon
