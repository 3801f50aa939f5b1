#include "programs/server/persistence/HistoryFile.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "programs/server/persistence/BadNames.h"
#include "programs/server/persistence/Checksum.h"
#include "programs/server/persistence/StartReads.h"

namespace tavix::daemon {

namespace {

constexpr std::string_view kEndMark = "#. ";
constexpr size_t kEndLineBytes = 12;        // with its checksum and its line feed
constexpr size_t kPieceBytes = 256 * 1024;  // that are written at once
constexpr char kEndLine[] = "#. %08" PRIx32 "\n";

std::string EndLineOf(std::string_view lines) {
  char line[kEndLineBytes + 1];
  return {line, static_cast<size_t>(std::snprintf(line, sizeof line, kEndLine, Checksum(lines)))};
}

// lines: of an entry.
bool IsGap(std::string_view lines) {
  const HistoryEntry entry = ReadHead(lines);
  return entry.command == kGapCommand;
}

// Whether it was never a history: no entry begins there, and the power left no zeros.
bool IsForeign(const FileContent& content) {
  if (!content.isRegular) return true;
  const std::string_view bytes = content.bytes;
  const bool mayBeTorn = kEntryMark.substr(0, bytes.size()) == bytes || bytes.find('\0') != std::string_view::npos;
  return !mayBeTorn && FindLine(bytes, kEntryMark, 0) == std::string_view::npos;
}

void RequireOurs(bool isForeign, const std::string& path) {
  if (isForeign) throw osa::Exception("'%s' holds something else than a history, and is left as it is", path.c_str());
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

uint64_t HistoryFile::Load(uint64_t journalBegin, std::vector<std::string>& problems) {
  try {
    Look(journalBegin, problems);
  } catch (const std::exception& exception) {
    problems.push_back(std::string("The history can't be used: ") + exception.what());
  }
  return _last;
}

// What can't be read at the end is dropped: what is appended takes its place. So is what stands behind damage among
// the entries that the journal has: appended once more, all stand in their order.
void HistoryFile::Look(uint64_t journalBegin, std::vector<std::string>& problems) {
  _file.reset();
  _isKnown = false;
  HistoryParts parts(GetGeneration() + 1);
  _last = 0;
  uint64_t last = LookAtOld(parts, problems);
  const std::string path = PathOf(_snapshotPath);
  const FileContent content = Read(path, problems);
  _isForeign = IsForeign(content);
  size_t end = 0;
  HistoryReader reader(content.bytes);
  size_t damaged = 0;  // before the entries that the journal may have
  while (reader.Next()) {
    const uint64_t revision = RevisionOf(reader.GetLines());
    const bool isJournaled = journalBegin > 0 && revision >= journalBegin;
    if (isJournaled && reader.CountDamaged() > damaged) break;
    damaged = reader.CountDamaged();
    parts.Add(revision, IsGap(reader.GetLines()), reader.GetBegin(), reader.GetEnd() - reader.GetBegin());
    last = std::max(last, revision);
    end = reader.GetEnd();
  }
  ReportDamage(journalBegin == 0 ? reader.CountDamaged() : damaged, path, problems);
  SetParts(std::move(parts));
  _exists = content.exists;
  _end = end;
  _last = last;
  _isKnown = true;
}

// Returns its last revision.
uint64_t HistoryFile::LookAtOld(HistoryParts& parts, std::vector<std::string>& problems) {
  const std::string path = OldPathOf(_snapshotPath);
  const FileContent content = Read(path, problems);
  _isOldForeign = IsForeign(content);
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

// What the disk can't read is put aside. It is another thing when resources ran out, or rights: then the history is
// there, and nobody knows what it holds.
FileContent HistoryFile::Read(const std::string& path, std::vector<std::string>& problems) {
  FileContent content = ReadAtStart(_files, path);
  if (content.problem.empty() || !content.isRegular) return content;
  const std::string bad = FindBadName(_files, path);
  _files.Rename(path, bad);
  problems.push_back("The history in '" + path + "' can't be read: " + content.problem + "; it is kept as '" + bad +
                     "'");
  return {};
}

void HistoryFile::Append(const HistoryItems& entries, std::vector<std::string>& problems) {
  try {
    Open(problems);
    for (const auto& entry : entries) {
      const bool isBehindGap = _last != 0 && entry->revision > _last + 1;
      if (isBehindGap) AddOne(entry->revision - 1, EncodeEntry(MakeGap()));
      AddOne(entry->revision, entry->lines);
    }
    Sync();
  } catch (...) {
    _file.reset();
    _isKnown = false;
    _text.clear();
    _written.clear();
    throw;
  }
}

bool HistoryFile::RemoveOld() {
  const std::string path = OldPathOf(_snapshotPath);
  if (_isOldForeign || !_files.Exists(path)) return false;
  const osa::PlainMutexLock names(_nameMutex);
  _files.Remove(path);
  const osa::PlainMutexLock lock(_mutex);
  _parts.DropOld();
  return true;
}

void HistoryFile::AddOne(uint64_t revision, const HistoryLines& lines) {
  if (Has(revision)) return;
  std::string one = SealEntry(revision, lines);
  const size_t bytes = one.size();
  if (_end > 0 && _end + bytes > _maxBytes / 2) {
    Sync();
    Rotate();
  } else if (_text.size() + bytes > kPieceBytes) {
    Write();
  }
  _written.push_back({revision, IsGap(one), _end, bytes});
  _end += bytes;
  if (_text.empty()) {
    _text = std::move(one);
  } else {
    _text += one;
  }
  _last = std::max(_last, revision);
}

// After a failure nobody knows what the file holds.
void HistoryFile::Open(std::vector<std::string>& problems) {
  if (_file) return;
  if (!_isKnown) Look(0, problems);
  RequireOurs(_isForeign, PathOf(_snapshotPath));
  if (!_exists) return;
  _file = _files.Open(PathOf(_snapshotPath));
  _file->Truncate(_end);
  _isSynced = false;
}

void HistoryFile::Rotate() {
  RequireOurs(_isOldForeign, OldPathOf(_snapshotPath));
  _file.reset();
  if (_exists) {
    const osa::PlainMutexLock names(_nameMutex);
    _files.Rename(PathOf(_snapshotPath), OldPathOf(_snapshotPath));
    const osa::PlainMutexLock lock(_mutex);
    _parts.Rotate();
  }
  _isSynced = false;
  _exists = false;
  _end = 0;
}

// What waits for it.
void HistoryFile::Write() {
  if (_text.empty()) return;
  if (!_file) {
    _file = _files.Create(PathOf(_snapshotPath));
    _exists = true;
    _isSynced = false;
  }
  _file->WriteAt(_end - _text.size(), _text);
  _text.clear();
  _hasUnsynced = true;
}

// What an earlier daemon left may not be on the disk yet, and the journal that has it as well loses its name next.
void HistoryFile::Sync() {
  Write();
  if (!_file || (_isSynced && !_hasUnsynced)) return;
  _file->Sync();
  if (!_isSynced) _files.SyncDirectoryOf(_snapshotPath);
  _isSynced = true;
  _hasUnsynced = false;
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
