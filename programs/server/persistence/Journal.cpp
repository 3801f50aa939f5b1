#include "programs/server/persistence/Journal.h"

#include <algorithm>
#include <exception>

namespace tavix::daemon {

namespace {

constexpr uint64_t kLeastFilled = 64 * 1024;
constexpr uint64_t kMaxFilled = 1024 * 1024;
constexpr uint64_t kSpare = 16 * 1024;

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

void Journal::Append(const Change& change) {
  uint32_t checksum = _checksum;
  const std::string bytes = EncodeRecord(change, checksum);
  const uint64_t end = _end + bytes.size();
  if (end + kSpare > _filled) FillAhead(end);
  if (_spare > 0 && end + _spare > _filled)
    throw NoRoom("Failed to make room for '" + PathOf(_snapshotPath) + "': No space left on device");
  _file->WriteAt(_end, bytes);
  if (change.extends && !_extends && _hasBegun) _file->WriteAt(kJournalVersionAt, std::string(1, kExtendingVersion));
  _extends = _extends || change.extends;
  _end = end;
  _filled = std::max(_filled, end);
  _checksum = checksum;
}

void Journal::Begin() {
  _file->WriteAt(0, EncodeJournalHeader(_follows, _end, _extends));
  _hasBegun = true;
}

// A part of a record may stand there, too, for which there was no room. The room is for a snapshot: a record that took
// it would leave none for the next try, so there is none for records until the spare room can be had again.
void Journal::GiveRoomBack() {
  _fillsAhead = false;
  _file->Truncate(_end);
  _filled = _end;
}

// A disk that never had room for zeros may have room for a record: what is wrong is the record's to find out.
void Journal::FillAhead(uint64_t end) {
  if (!_fillsAhead) return;
  try {
    if (TryToFill(end + std::clamp(end, kLeastFilled, kMaxFilled)) || TryToFill(end + kSpare)) _spare = kSpare;
  } catch (const std::exception&) {
    _spare = 0;
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
