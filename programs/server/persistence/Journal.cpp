#include "programs/server/persistence/Journal.h"

#include <algorithm>
#include <exception>

#include "programs/server/persistence/Checksum.h"
#include "programs/server/persistence/PieceWriter.h"

namespace tavix::daemon {

namespace {

constexpr uint64_t kMinFilled = 64 * 1024;
constexpr uint64_t kMaxFilled = 1024 * 1024;
constexpr size_t kMaxBufferKept = 16 * 1024;

uint64_t CountFilledAhead(uint64_t end) {
  return std::clamp(end, kMinFilled, kMaxFilled);
}

}  // namespace

std::unique_ptr<Journal> Journal::Create(FileSystem& files, const std::string& snapshotPath,
                                         const SnapshotId& follows) {
  std::unique_ptr<Journal> journal(new Journal(files, snapshotPath, follows));
  journal->_file = files.Create(NewPathOf(snapshotPath));
  journal->FillAhead(journal->_end);
  return journal;
}

std::unique_ptr<Journal> Journal::Create(FileSystem& files, const std::string& snapshotPath, const SnapshotId& follows,
                                         const std::vector<Change>& changes) {
  std::unique_ptr<Journal> journal = Create(files, snapshotPath, follows);
  try {
    for (const Change& change : changes) journal->Append(change);
    journal->Begin();
  } catch (...) {
    RemoveQuietly(files, NewPathOf(snapshotPath));
    throw;
  }
  return journal;
}

std::unique_ptr<Journal> Journal::Resume(FileSystem& files, const std::string& snapshotPath, bool isInPlace,
                                         const JournalReader& reader, uint64_t fileSize) {
  std::unique_ptr<Journal> journal(new Journal(files, snapshotPath, reader.GetFollowed()));
  journal->_file = files.Open(isInPlace ? PathOf(snapshotPath) : NewPathOf(snapshotPath));
  journal->_isInPlace = isInPlace;
  journal->_end = reader.GetEnd();
  journal->_hasBegun = true;
  journal->_extends = reader.HasExtendingVersion();
  journal->_filled = fileSize;
  if (fileSize >= journal->_end + kSpare) journal->_spare = kSpare;
  journal->_checksum = reader.GetChecksum();
  if (reader.HasMore())
    journal->_file->WriteAt(journal->_end, std::string(static_cast<size_t>(fileSize - journal->_end), '\0'));
  return journal;
}

// The first change that extends groups also changes the header, behind its own write.
void Journal::Append(const Change& change, Write write) {
  uint32_t checksum = _checksum;
  const std::string bytes = EncodeRecord(change, checksum);
  const uint64_t end = _end + bytes.size();
  if (end + kSpare > _filled) FillAhead(end);
  RequireRoom(end);
  _buffered += bytes;
  _end = end;
  _checksum = checksum;
  if (write == Write::kAtOnce || (change.extends && !_extends)) WriteBuffered();
  if (change.extends) NoteExtension();
}

void Journal::WriteBuffered() {
  if (_buffered.empty()) return;
  _file->WriteAt(_end - _buffered.size(), _buffered);
  _filled = std::max(_filled, _end);
  _buffered.clear();
  if (_buffered.capacity() > kMaxBufferKept) _buffered.shrink_to_fit();
}

void Journal::RequireRoom(uint64_t end) const {
  if (_spare > 0 && end + _spare > _filled)
    throw NoRoom("Failed to make room for '" + PathOf(_snapshotPath) + "': No space left on device");
}

void Journal::NoteExtension() {
  if (!_extends && _hasBegun) _file->WriteAt(kJournalVersionAt, std::string(1, kExtendingVersion));
  _extends = true;
}

void Journal::BeginAppend(const RecordLine& line) {
  _appending = {_end, line, false, true};
  _end += line.CountRecordBytes();
}

// No zeros are filled in where the change comes to stand: they would be written twice. The line, which makes it count,
// comes last, as its checksum does.
void Journal::WriteAppended(const Texts& writeTexts) {
  if (!ReserveAhead(_end)) RequireRoom(_end);
  uint32_t checksum = _appending.line.BeginChecksum(_checksum);
  PieceWriter pieces(*_file, _appending.begin + _appending.line.Encode(0).size(), PieceWriter::Pace::kFast);
  writeTexts([&](std::string_view text) {
    checksum = Checksum(text, checksum);
    pieces.Write(text);
  });
  pieces.Flush();
  _file->WriteAt(_appending.begin, _appending.line.Encode(checksum));
  if (_appending.line.extends) NoteExtension();
  _filled = std::max(_filled, _end);
  _checksum = checksum;
  FillAhead(_end);
  _appending.isWritten = true;
}

void Journal::EndAppend() {
  if (_appending.isUnderWay && !_appending.isWritten) _end = _appending.begin;
  _appending = {};
}

void Journal::Begin() {
  _file->WriteAt(0, EncodeJournalHeader(_follows, _end, _extends));
  _hasBegun = true;
}

// A part of a record may stand there, too, for which there was no room. The room is for a snapshot: a record that took
// it would leave none for the next try, so there is none for records until the spare room can be had again.
void Journal::GiveRoomBack(bool withSpare) {
  if (_appending.isUnderWay) return;
  _fillsAhead = false;
  const uint64_t end = withSpare ? _end : std::min(_filled, _end + _spare);
  _file->Truncate(end);
  _filled = end;
}

// Takes the room for as much as is filled ahead. False when it can't be had.
bool Journal::ReserveAhead(uint64_t end) {
  if (!_fillsAhead) return false;
  try {
    _file->Reserve(end + CountFilledAhead(end));
    return true;
  } catch (const std::exception&) {
    return false;  // a record that has no room itself finds out
  }
}

// A disk that never had room for zeros may have room for a record: what is wrong is the record's to find out.
void Journal::FillAhead(uint64_t end) {
  if (!_fillsAhead) return;
  try {
    _lacksRoom = !TryToFill(end + CountFilledAhead(end)) && !TryToFill(end + kSpare);
    if (!_lacksRoom) _spare = kSpare;
  } catch (const std::exception&) {
    _spare = 0;
    _lacksRoom = false;  // another failure
  }
}

// False when the disk is full.
bool Journal::TryToFill(uint64_t end) {
  const uint64_t begin = std::max(_filled, _end);
  if (end <= begin) return true;
  try {
    _file->Reserve(end);
    _file->WriteAt(begin, std::string(static_cast<size_t>(end - begin), '\0'));
    _filled = end;
    return true;
  } catch (const NoRoom&) {
    return false;
  }
}

void Journal::Sync() {
  WriteBuffered();
  SyncRecords();
  TakePlace();
  SyncName();
}

void Journal::SyncRecords() {
  _file->Sync();
}

void Journal::TakePlace() {
  if (_isInPlace) return;
  _files.Rename(NewPathOf(_snapshotPath), PathOf(_snapshotPath));
  _isInPlace = true;
}

void Journal::SyncName() {
  if (_nameIsSynced) return;
  _files.SyncDirectoryOf(_snapshotPath);
  _nameIsSynced = true;
}

}  // namespace tavix::daemon
