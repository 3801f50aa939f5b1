#include "programs/server/persistence/UserSettingsFiles.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <utility>

#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("UserSettings");
  return logger;
}

std::string BackupOf(const std::string& path) {
  return path + ".bak";
}

// A name that nothing has yet.
std::string FindBadName(FileSystem& files, const std::string& path) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  const std::string name = path + ".bad-" + text;
  std::string free = name;
  for (int i = 2; files.Exists(free); ++i) free = name + "-" + std::to_string(i);
  return free;
}

// A journal as it was found, and how many of its changes the snapshot lacks.
struct FoundJournal {
  std::string path;
  FileContent content;
  uint64_t changesFrom = 0;  // 0: it does not belong to the snapshot
  size_t changes = 0;
};

uint64_t FindWhereChangesBegin(const JournalReader& journal, const SnapshotEnd& snapshot) {
  if (!journal.IsJournal() || snapshot.generation == 0) return 0;
  if (journal.GetFollowed() == snapshot.generation) return kJournalHeaderSize;
  return journal.GetFollowed() == snapshot.journalFollows ? snapshot.journalEnd : 0;
}

FoundJournal LookAt(FileSystem& files, const std::string& path, const SnapshotEnd& snapshot) {
  FoundJournal found{path, files.Read(path), 0, 0};
  JournalReader reader(found.content.bytes);
  found.changesFrom = FindWhereChangesBegin(reader, snapshot);
  if (!reader.IsJournal()) return found;
  for (uint64_t begin = reader.GetEnd(); reader.Next(); begin = reader.GetEnd()) {
    if (begin >= found.changesFrom) ++found.changes;
  }
  return found;
}

// Behind the last change that could be read.
JournalReader Replay(const FoundJournal& journal, core::IniFile& settings) {
  JournalReader reader(journal.content.bytes);
  for (uint64_t begin = reader.GetEnd(); reader.Next(); begin = reader.GetEnd()) {
    if (begin >= journal.changesFrom) ApplyChange(settings, reader.GetRemoved(), reader.GetSet());
  }
  return reader;
}

void AvoidGeneration(uint64_t generation, FoundUserSettings& found) {
  found.nextGeneration = std::max(found.nextGeneration, generation + 1);
}

// Whether it holds changes that are in no snapshot that counts.
bool IsOrphan(const FoundJournal& journal, const SnapshotEnd& snapshot) {
  if (!journal.content.exists || journal.changesFrom > 0) return false;
  const JournalReader reader(journal.content.bytes);
  return !reader.IsJournal() || (journal.changes > 0 && reader.GetFollowed() >= snapshot.generation);
}

}  // namespace

UserSettingsFiles::UserSettingsFiles(FileSystem& files, std::string path) : _files(files), _path(std::move(path)) {}

FoundUserSettings UserSettingsFiles::Find(bool mayRepair) {
  FoundUserSettings found;
  Snapshot snapshot = FindSnapshot(found);
  found.settings = std::move(snapshot.settings);
  found.generation = snapshot.end.generation;
  found.snapshotBytes = snapshot.bytes;
  ApplyJournal(snapshot, mayRepair, found);
  if (mayRepair) MakeDurable(found);
  return found;
}

// The daemon before may have ended before it had synced what it wrote, and from now on people are shown that.
void UserSettingsFiles::MakeDurable(FoundUserSettings& found) {
  try {
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

Snapshot UserSettingsFiles::FindSnapshot(FoundUserSettings& found) {
  const FileContent content = _files.Read(_path);
  Snapshot snapshot = ReadSnapshot(_path, content);
  AvoidGeneration(snapshot.end.generation, found);
  found.isAbsent = snapshot.state == Snapshot::State::kAbsent;
  if (snapshot.state == Snapshot::State::kEdited)
    found.notices.push_back("'" + _path + "' was edited by hand since it was saved; it is used as it is");

  const bool isEmpty = content.exists && content.problem.empty() && content.bytes.empty();
  if (snapshot.state != Snapshot::State::kDamaged && !isEmpty) return snapshot;
  Snapshot backup = ReadSnapshot(BackupOf(_path), _files.Read(BackupOf(_path)));
  if (isEmpty) {
    // Nobody empties settings that were saved before but a file system that lost what was written to it.
    if (backup.state == Snapshot::State::kAbsent) return snapshot;
    snapshot.problem = "'" + _path + "': it is empty";
  }
  return UseBackup(snapshot, std::move(backup), found);
}

Snapshot UserSettingsFiles::UseBackup(const Snapshot& damaged, Snapshot backup, FoundUserSettings& found) {
  const bool isUsable = backup.state != Snapshot::State::kAbsent && backup.state != Snapshot::State::kDamaged;
  AvoidGeneration(backup.end.generation, found);
  found.mustBeWritten = true;
  found.problems.push_back("User settings are damaged: " + damaged.problem + "; " +
                           (isUsable ? "the backup '" + BackupOf(_path) + "' is used"
                                     : std::string("there is no backup of use, they begin empty")));
  _isDamaged = true;
  if (backup.state == Snapshot::State::kDamaged) found.problems.push_back("The backup is damaged: " + backup.problem);
  return isUsable ? std::move(backup) : Snapshot();
}

void UserSettingsFiles::ApplyJournal(const Snapshot& snapshot, bool mayRepair, FoundUserSettings& found) {
  const FoundJournal inPlace = LookAt(_files, Journal::PathOf(_path), snapshot.end);
  const FoundJournal onItsWay = LookAt(_files, Journal::NewPathOf(_path), snapshot.end);
  for (const FoundJournal* journal : {&inPlace, &onItsWay}) {
    AvoidGeneration(JournalReader(journal->content.bytes).GetFollowed(), found);
    if (!IsOrphan(*journal, snapshot.end) || (journal == &onItsWay && journal->changes == 0)) continue;
    found.problems.push_back("The changes in '" + journal->path + "' belong to no user settings that are there");
    PutAside(journal->path, mayRepair, found);
  }
  // Both hold the same changes, as far as each goes.
  const bool newIsLonger =
      onItsWay.changesFrom > 0 && onItsWay.changes > (inPlace.changesFrom > 0 ? inPlace.changes : 0);
  const FoundJournal& journal = newIsLonger ? onItsWay : inPlace;
  // One without changes does not go on: it may even end before those that the snapshot holds.
  if (journal.changes == 0 || journal.changesFrom == 0) return;
  try {
    const JournalReader reader = Replay(journal, found.settings);
    if (reader.HasMore())
      found.notices.push_back("'" + journal.path + "' ends with an unfinished change, which is dropped");
    if (mayRepair)
      found.journal =
          Journal::Resume(_files, _path, !newIsLonger, reader, static_cast<uint64_t>(journal.content.bytes.size()));
  } catch (const std::exception& exception) {
    found.problems.push_back(exception.what());
    found.mustBeWritten = true;
  }
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

void UserSettingsFiles::ReplaceSnapshot(const std::string& text, int64_t written) {
  const std::string newPath = _path + ".new";
  try {
    WriteNewSnapshot(newPath, text, written);
    if (_isDamaged) {
      KeepDamaged();
    } else {
      KeepBackup();
    }
    _files.Rename(newPath, _path);
  } catch (...) {
    RemoveQuietly(newPath);
    throw;
  }
  _isDamaged = false;
  _damagedIsKept = false;
  _files.SyncDirectoryOf(_path);
}

void UserSettingsFiles::WriteNewSnapshot(const std::string& newPath, const std::string& text, int64_t written) {
  const std::unique_ptr<File> file = _files.Create(newPath);
  file->WriteAt(0, text);
  try {
    file->SetModificationTime(written);
  } catch (const std::exception& exception) {
    // Then rot looks like an edit. That is no reason not to save.
    Log()->Trace("%s", exception.what());
  }
  file->Sync();
}

// What is left of a try would only take room that the next one needs.
void UserSettingsFiles::RemoveQuietly(const std::string& path) {
  try {
    _files.Remove(path);
  } catch (const std::exception& exception) {
    Log()->Trace("%s", exception.what());
  }
}

// Not before there is something to replace it: a start that found neither would not look for the backup. What can't
// have a second name, a directory for instance, is renamed.
void UserSettingsFiles::KeepDamaged() {
  if (_damagedIsKept || !_files.Exists(_path)) return;
  const std::string name = FindBadName(_files, _path);
  try {
    _files.Link(_path, name);
  } catch (const std::exception&) {
    _files.Rename(_path, name);
  }
  _damagedIsKept = true;
  Log()->Warning("The damaged '%s' is kept as '%s'", _path.c_str(), name.c_str());
}

// Some file systems have no links: then there is no backup, and that is no reason not to save.
void UserSettingsFiles::KeepBackup() {
  if (!_files.Exists(_path)) return;
  const std::string newBackup = BackupOf(_path) + ".new";
  try {
    _files.Remove(newBackup);
    _files.Link(_path, newBackup);
    _files.Rename(newBackup, BackupOf(_path));
  } catch (const std::exception& exception) {
    Log()->Warning("No backup is kept: %s", exception.what());
  }
}

void UserSettingsFiles::RemoveJournals() {
  if (!_files.Exists(Journal::PathOf(_path)) && !_files.Exists(Journal::NewPathOf(_path))) return;
  _files.Remove(Journal::PathOf(_path));
  _files.Remove(Journal::NewPathOf(_path));
  _files.SyncDirectoryOf(_path);
}

}  // namespace tavix::daemon
