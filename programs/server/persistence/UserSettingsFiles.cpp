#include "programs/server/persistence/UserSettingsFiles.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "programs/common/SettingsFileNames.h"
#include "programs/server/persistence/BadNames.h"
#include "programs/server/persistence/LongLine.h"
#include "programs/server/persistence/PieceWriter.h"
#include "programs/server/persistence/StartReads.h"
#include "programs/server/trials/TrialText.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

using programs::BackupOf;
using programs::NewFileOf;

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("UserSettings");
  return logger;
}

uint64_t FindWhereChangesBegin(const JournalReader& journal, const Snapshot& snapshot) {
  if (!journal.IsJournal() || snapshot.end.generation == 0) return 0;
  if (journal.GetFollowed() == snapshot.GetId()) return kJournalHeaderSize;
  return journal.GetFollowed().generation == snapshot.end.journalFollows ? snapshot.end.journalEnd : 0;
}

FoundJournal LookAt(FileSystem& files, const std::string& path, const Snapshot& snapshot) {
  FoundJournal found{path, ReadAtStart(files, path), 0, 0, false};
  JournalReader reader(found.content.bytes);
  found.changesFrom = FindWhereChangesBegin(reader, snapshot);
  if (!reader.IsJournal()) return found;
  bool goesOnThere = false;
  for (uint64_t begin = reader.GetEnd(); reader.Next(); begin = reader.GetEnd()) {
    goesOnThere = goesOnThere || begin == found.changesFrom;
    if (begin >= found.changesFrom) ++found.changes;
  }
  if (found.changes > 0 && !goesOnThere) found.changesFrom = 0;  // it is another device's
  found.isWhole = found.changesFrom > 0 && reader.GetEnd() >= reader.GetWholeFrom();
  return found;
}

// Of the changes that the snapshot holds. A journal before the one that the snapshot names may have been shown, and
// that one may never have taken its place.
void AddEarlierEntries(const FoundJournal& journal, const SnapshotEnd& snapshot, FoundUserSettings& found) {
  JournalReader reader(journal.content.bytes);
  if (!reader.IsJournal()) return;
  const bool isOld = journal.changesFrom == 0 && reader.GetFollowed().generation < snapshot.generation;
  while ((isOld || reader.GetEnd() < journal.changesFrom) && reader.Next()) found.history.Add(reader);
}

// Behind the last change that could be read.
JournalReader Replay(const FoundJournal& journal, FoundUserSettings& found) {
  JournalReader reader(journal.content.bytes);
  for (uint64_t begin = reader.GetEnd(); reader.Next(); begin = reader.GetEnd()) {
    if (begin < journal.changesFrom) continue;
    found.history.AddNext(reader, found.settings);
    ApplyChange(found.settings, reader.GetRemoved(), reader.GetSet(), reader.Extends());
    found.trials += TakeTrialLines(reader.GetRemoved());
  }
  return reader;
}

void AvoidGeneration(uint64_t generation, FoundUserSettings& found) {
  found.nextGeneration = std::max(found.nextGeneration, generation + 1);
}

// Whether the power went before its beginning was on the disk, and nothing of use behind it is there either.
bool HasNotBegun(std::string_view bytes) {
  const std::string_view header = bytes.substr(0, kJournalHeaderSize);
  const bool isTorn = header.size() < kJournalHeaderSize && IsBeginOfJournal(header);
  return (isTorn || header.find('\0') != std::string_view::npos) &&
         JournalReader(bytes).FindLater() == std::string_view::npos;
}

// Whether it holds changes that are in no snapshot that counts.
bool IsOrphan(const FoundJournal& journal, const SnapshotEnd& snapshot) {
  if (!journal.content.exists || journal.changesFrom > 0) return false;
  const JournalReader reader(journal.content.bytes);
  if (reader.IsJournal()) return journal.changes > 0 && reader.GetFollowed().generation >= snapshot.generation;
  return !journal.content.problem.empty() || !HasNotBegun(journal.content.bytes);
}

std::string DescribeOrphan(const FoundJournal& journal) {
  const std::string name = "'" + journal.path + "'";
  if (!journal.content.problem.empty()) return "The changes in " + name + " can't be read: " + journal.content.problem;
  return "The changes in " + name + " belong to no user settings that are there";
}

}  // namespace

UserSettingsFiles::UserSettingsFiles(FileSystem& files, std::string path) : _files(files), _path(std::move(path)) {}

FoundUserSettings UserSettingsFiles::Find(bool mayRepair) {
  FoundUserSettings found;
  Snapshot snapshot = FindSnapshot(found);
  found.settings = std::move(snapshot.settings);
  found.snapshot = snapshot.GetId();
  found.snapshotBytes = snapshot.bytes;
  found.hasLongLine = snapshot.hasLongLine;
  found.mayHaveRestricted = snapshot.mayHaveRestricted;
  found.history.snapshotRevision = snapshot.revision;
  found.history.AddSnapshot(snapshot.entries);
  found.history.wasEdited = snapshot.revision && snapshot.state == Snapshot::State::kEdited;
  ApplyJournal(snapshot, mayRepair, found);
  if (!mayRepair) return found;
  if (!found.mustBeWritten) RemoveLeftovers(found);
  MakeDurable(found);
  return found;
}

// Of what was on its way when the power went. Room that others may need.
void UserSettingsFiles::RemoveLeftovers(const FoundUserSettings& found) {
  RemoveQuietly(_files, NewFileOf(_path));
  RemoveQuietly(_files, NewFileOf(BackupOf(_path)));
  RemoveQuietly(_files, NewFileOf(programs::TrialsOf(_path)));
  if (found.history.entries.empty() && !IsNewJournalUsed(found)) RemoveNewJournal();
}

bool UserSettingsFiles::IsNewJournalUsed(const FoundUserSettings& found) {
  return found.journal && !found.journal->IsInPlace();
}

// The daemon before may have ended before it had synced what it wrote, or somebody put a copy there a moment ago, and
// from now on people are shown that.
void UserSettingsFiles::MakeDurable(FoundUserSettings& found) {
  try {
    if (!found.isAbsent && !found.mustBeWritten) SyncSnapshot();
    if (found.journal) {
      found.journal->Sync();
    } else if (!found.isAbsent && !found.mustBeWritten) {
      _files.SyncDirectoryOf(_path);
    }
  } catch (const std::exception& exception) {
    found.problems.push_back(exception.what());
    found.mustBeWritten = true;
    found.journal.reset();
  }
}

void UserSettingsFiles::SyncSnapshot() {
  _synced = Synced::kNo;
  _files.Sync(_path);
  _synced = Synced::kYes;
}

Snapshot UserSettingsFiles::FindSnapshot(FoundUserSettings& found) {
  const FileContent content = ReadAtStart(_files, _path);
  Snapshot snapshot = ReadSnapshot(_path, content);
  AvoidGeneration(snapshot.end.generation, found);
  found.isAbsent = snapshot.state == Snapshot::State::kAbsent;
  if (snapshot.state == Snapshot::State::kEdited)
    found.notices.push_back("'" + _path + "' was edited by hand since it was saved; it is used as it is");

  if (found.isAbsent) return UseNewSnapshot(std::move(snapshot), found);
  const bool isEmpty = content.exists && content.problem.empty() && content.bytes.empty();
  if (snapshot.state != Snapshot::State::kDamaged && !isEmpty) return snapshot;
  Snapshot backup = ReadSnapshot(BackupOf(_path), ReadAtStart(_files, BackupOf(_path)));
  if (isEmpty) {
    // Nobody empties settings that were saved before but a file system that lost what was written to it.
    if (backup.state == Snapshot::State::kAbsent) return snapshot;
    snapshot.problem = "'" + _path + "': it is empty";
  }
  return UseBackup(snapshot, std::move(backup), found);
}

// The power went before it got its name for the first time.
Snapshot UserSettingsFiles::UseNewSnapshot(Snapshot absent, FoundUserSettings& found) {
  Snapshot next = ReadSnapshot(NewFileOf(_path), ReadAtStart(_files, NewFileOf(_path)));
  if (next.state != Snapshot::State::kIntact) return absent;
  AvoidGeneration(next.end.generation, found);
  found.isAbsent = false;
  found.mustBeWritten = true;
  found.notices.push_back("'" + _path + "' is missing; '" + NewFileOf(_path) + "', which was to be it, is used");
  return next;
}

Snapshot UserSettingsFiles::UseBackup(const Snapshot& damaged, Snapshot backup, FoundUserSettings& found) {
  const bool isUsable = backup.state != Snapshot::State::kAbsent && backup.state != Snapshot::State::kDamaged;
  AvoidGeneration(backup.end.generation, found);
  found.history.NoteLost(damaged.revision.value_or(0));
  found.mustBeWritten = true;
  found.problems.push_back("User settings are damaged: " + damaged.problem + "; " +
                           (isUsable ? "the backup '" + BackupOf(_path) + "' is used"
                                     : std::string("there is no backup of use, they begin empty")));
  _isDamaged = true;
  if (backup.state == Snapshot::State::kDamaged) found.problems.push_back("The backup is damaged: " + backup.problem);
  return isUsable ? std::move(backup) : Snapshot();
}

void UserSettingsFiles::ApplyJournal(const Snapshot& snapshot, bool mayRepair, FoundUserSettings& found) {
  const FoundJournal inPlace = LookAt(_files, Journal::PathOf(_path), snapshot);
  const FoundJournal onItsWay = LookAt(_files, Journal::NewPathOf(_path), snapshot);
  for (const FoundJournal* journal : {&inPlace, &onItsWay}) {
    AvoidGeneration(JournalReader(journal->content.bytes).GetFollowed().generation, found);
    if (!IsOrphan(*journal, snapshot.end) || (journal == &onItsWay && journal->changes == 0)) continue;
    found.problems.push_back(DescribeOrphan(*journal));
    found.history.NoteLost(journal->content.bytes);
    PutAside(journal->path, mayRepair, found);
  }
  for (const FoundJournal* journal : {&inPlace, &onItsWay}) AddEarlierEntries(*journal, snapshot.end, found);
  found.history.EndEarlier();
  // A new one that is whole holds all changes of the one before.
  const bool newCounts = onItsWay.isWhole && onItsWay.changes > 0;
  const FoundJournal& journal = newCounts ? onItsWay : inPlace;
  // One without changes does not go on: it may even end before those that the snapshot holds.
  if (journal.changes == 0 || journal.changesFrom == 0) return;
  found.mayHaveRestricted = true;
  try {
    const JournalReader reader = Replay(journal, found);
    const std::string_view bytes = journal.content.bytes;
    found.hasLongLine = found.hasLongLine || HasLongLine(bytes.substr(0, static_cast<size_t>(reader.GetEnd())));
    const bool mayGoOn = !reader.HasMore() || NoteRest(journal, reader, mayRepair, found);
    found.mustBeWritten = found.mustBeWritten || !mayGoOn;
    if (mayRepair && mayGoOn)
      found.journal = Journal::Resume(_files, _path, !newCounts, reader, static_cast<uint64_t>(bytes.size()));
  } catch (const std::exception& exception) {
    found.problems.push_back(exception.what());
    found.mustBeWritten = true;
  }
}

// What follows the last change that counts is to be wiped out. What could be more than a change that was never finished
// is kept before. False when that is impossible.
bool UserSettingsFiles::NoteRest(const FoundJournal& journal, const JournalReader& reader, bool mayRepair,
                                 FoundUserSettings& found) {
  const std::string dropped = std::to_string(reader.CountMore()) + " bytes";
  const bool isRotten = reader.IsRotten();
  const std::string_view rest = std::string_view(journal.content.bytes).substr(static_cast<size_t>(reader.GetEnd()));
  if (isRotten) found.history.NoteLost(rest);
  std::string text = isRotten ? "'" + journal.path + "' is damaged behind byte " + std::to_string(reader.GetEnd()) +
                                    ": changes are lost, " + dropped
                              : "'" + journal.path + "' ends with an unfinished change, which is dropped, " + dropped;
  bool isKept = true;
  if (mayRepair && (isRotten || reader.FindLater() != std::string_view::npos)) {
    try {
      const std::string name = FindBadName(_files, Journal::PathOf(_path));
      const std::string_view bytes = journal.content.bytes;
      WriteCopy(name, bytes.substr(0, static_cast<size_t>(reader.GetEnd() + reader.CountMore())));
      text += "; it is kept as '" + name + "'";
    } catch (const std::exception& exception) {
      text += std::string("; it can't be kept: ") + exception.what();
      isKept = false;
    }
  }
  (isRotten ? found.problems : found.notices).push_back(text);
  return isKept;
}

void UserSettingsFiles::PutAside(const std::string& path, bool mayRepair, FoundUserSettings& found) {
  if (!mayRepair) return;
  try {
    const std::string name = FindBadName(_files, path);
    _files.Rename(path, name);
    found.problems.back() += "; it is kept as '" + name + "'";
  } catch (const std::exception& exception) {
    found.problems.back() += std::string("; it can't be put aside: ") + exception.what();
  }
}

std::vector<std::string> UserSettingsFiles::ReplaceSnapshot(const std::string& text, int64_t written) {
  if (!IsWholeSnapshot(text)) throw osa::Exception("'%s': half a text is not saved", _path.c_str());
  const std::string newPath = NewFileOf(_path);
  _notices.clear();
  try {
    WriteNewSnapshot(newPath, text, written);
    if (_isDamaged) {
      KeepDamaged();
    } else {
      KeepBackup();
    }
    _files.Rename(newPath, _path);
  } catch (...) {
    RemoveQuietly(_files, newPath);
    throw;
  }
  // The new one stands from here on, even if the sync of its name fails: it is the one that the next backup is made of.
  ++_replaced;
  _synced = Synced::kYes;
  _isDamaged = false;
  _damagedIsKept = false;
  _files.SyncDirectoryOf(_path);
  return std::move(_notices);
}

void UserSettingsFiles::WriteNewSnapshot(const std::string& newPath, const std::string& text, int64_t written) {
  const std::unique_ptr<File> file = _files.Create(newPath);
  file->Reserve(text.size());
  PieceWriter pieces(*file, 0, PieceWriter::Pace::kGentle);
  pieces.Write(text);
  pieces.Flush();
  try {
    file->SetModificationTime(written);
  } catch (const std::exception& exception) {
    // Then rot looks like an edit. That is no reason not to save.
    Log()->Trace("%s", exception.what());
  }
  file->Sync();
}

// Not before there is something to replace it: a start that found neither would not look for the backup.
void UserSettingsFiles::KeepDamaged() {
  if (_damagedIsKept || !_files.Exists(_path)) return;
  const std::string name = FindBadName(_files, _path);
  try {
    _files.Link(_path, name);
    _damagedIsKept = true;
  } catch (const std::exception&) {
    KeepBytes(name);
  }
  if (_damagedIsKept) _notices.push_back("The damaged '" + _path + "' is kept as '" + name + "'");
}

// Not by a rename: a name that is gone until the new one takes its place would look like settings that somebody
// removed.
void UserSettingsFiles::KeepBytes(const std::string& to) {
  const FileContent content = _files.Read(_path);
  if (content.problem.empty()) {
    WriteCopy(to, content.bytes);
    _damagedIsKept = true;
  } else {
    _notices.push_back("The damaged '" + _path + "' can't be kept: " + content.problem);
  }
}

void UserSettingsFiles::WriteCopy(const std::string& path, std::string_view bytes) {
  try {
    const std::unique_ptr<File> file = _files.Create(path);
    file->Reserve(bytes.size());
    file->WriteAt(0, bytes);
    file->Sync();
  } catch (...) {
    RemoveQuietly(_files, path);
    throw;
  }
  _files.SyncDirectoryOf(path);
}

// Some file systems have no links: then there is no backup, and that is no reason not to save. What may not be on the
// disk does not take the place of one that is.
void UserSettingsFiles::KeepBackup() {
  if (!_files.Exists(_path)) return;
  const std::string newBackup = NewFileOf(BackupOf(_path));
  try {
    if (_synced == Synced::kUnknown) SyncSnapshot();
    if (_synced == Synced::kNo) throw osa::Exception("'%s' could not be synced", _path.c_str());
    _files.Remove(newBackup);
    _files.Link(_path, newBackup);
    _files.Rename(newBackup, BackupOf(_path));
    ++_backups;
  } catch (const std::exception& exception) {
    _notices.push_back(std::string("No backup is kept: ") + exception.what());
  }
}

void UserSettingsFiles::RemoveJournals() {
  if (!_files.Exists(Journal::PathOf(_path)) && !_files.Exists(Journal::NewPathOf(_path))) return;
  _files.Remove(Journal::PathOf(_path));
  _files.Remove(Journal::NewPathOf(_path));
  _files.SyncDirectoryOf(_path);
}

bool UserSettingsFiles::RemoveBackup() {
  const bool isNeeded = _isDamaged || _synced != Synced::kYes || !_files.Exists(_path);
  if (isNeeded || !_files.Exists(BackupOf(_path))) return false;
  _files.Remove(BackupOf(_path));
  return true;
}

void UserSettingsFiles::RemoveNewJournal() {
  RemoveQuietly(_files, Journal::NewPathOf(_path));
}

}  // namespace tavix::daemon
