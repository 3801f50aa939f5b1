#include "programs/server/persistence/Journal.h"

#include <algorithm>

namespace tavix::daemon {

namespace {

constexpr uint64_t kLeastFilled = 64 * 1024;
constexpr uint64_t kMostFilled = 1024 * 1024;

}  // namespace

std::unique_ptr<Journal> Journal::Create(FileSystem& files, const std::string& snapshotPath, uint64_t follows,
                                         const std::vector<Change>& changes) {
  std::unique_ptr<Journal> journal(new Journal(files, snapshotPath, follows));
  journal->_file = files.Create(NewPathOf(snapshotPath));
  std::string bytes = EncodeJournalHeader(follows, journal->_checksum);
  for (const Change& change : changes) bytes += EncodeRecord(change, journal->_checksum);
  journal->Write(bytes);
  return journal;
}

std::unique_ptr<Journal> Journal::Resume(FileSystem& files, const std::string& snapshotPath, bool isInPlace,
                                         const JournalReader& reader, uint64_t fileSize) {
  std::unique_ptr<Journal> journal(new Journal(files, snapshotPath, reader.GetFollowed()));
  journal->_file = files.Open(isInPlace ? PathOf(snapshotPath) : NewPathOf(snapshotPath));
  journal->_isInPlace = isInPlace;
  journal->_end = reader.GetEnd();
  journal->_filled = fileSize;
  journal->_checksum = reader.GetChecksum();
  if (reader.HasMore())
    journal->_file->WriteAt(journal->_end, std::string(static_cast<size_t>(fileSize - journal->_end), '\0'));
  return journal;
}

void Journal::Append(const Change& change) {
  Write(EncodeRecord(change, _checksum));
}

void Journal::Write(const std::string& bytes) {
  const uint64_t end = _end + bytes.size();
  if (end > _filled) {
    const uint64_t filled = end + std::clamp(end, kLeastFilled, kMostFilled);
    _file->WriteAt(_filled, std::string(static_cast<size_t>(filled - _filled), '\0'));
    _filled = filled;
  }
  _file->WriteAt(_end, bytes);
  _end = end;
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
