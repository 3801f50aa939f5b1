#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/FoundHistory.h"
#include "programs/server/persistence/Journal.h"
#include "programs/server/persistence/Snapshot.h"
#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// What was found at start.
struct FoundUserSettings {
  core::IniFile settings;
  SnapshotId snapshot;          // that counts; generation 0: there is none that a journal could follow
  uint64_t nextGeneration = 1;  // above all that were seen
  size_t snapshotBytes = 0;
  std::unique_ptr<Journal> journal;  // that goes on; null: there is none
  bool hasLongLine = false;          // HasLongLine is true of one of the texts
  bool mayHaveRestricted = true;     // groups that clients may not set; else there is none
  bool isAbsent = false;
  bool mustBeWritten = false;  // what was read stands nowhere as a whole
  FoundHistory history;
  std::string trials;                 // the journal's lines about trials, behind the snapshot
  std::vector<std::string> notices;   // what is worth knowing
  std::vector<std::string> problems;  // what was damaged, and what became of it
};

// A journal as it was found, and how many of its changes the snapshot lacks.
struct FoundJournal {
  std::string path;
  FileContent content;
  uint64_t changesFrom = 0;  // 0: it does not belong to the snapshot
  size_t changes = 0;
  bool isWhole = false;  // so far that it counts instead of the one before
};

// The files of the user layer beside one another:
//
//     FILE              the snapshot
//     FILE.journal      the changes since
//     FILE.bak          the snapshot before
//     FILE.new, FILE.journal.new   on their way to take the place of the first two
//     FILE.bad-TIME     what could not be read, kept for people; FILE.journal.bad-TIME likewise
//
// In order: Find comes first and once. It reads the snapshot, or its backup, applies the journal that belongs to it,
// and with mayRepair makes durable what it found. Then snapshots are replaced, any number of times. Each replacement
// writes and syncs FILE.new, makes FILE a backup by a link, renames FILE.new to FILE, and syncs the directory: a power
// cut between any two of these steps leaves the old snapshot or the new one. What stands at FILE becomes a backup only
// if it is known to be synced and not damaged; a damaged one is kept under its bad name first.
//
// Threads: one at a time.
// Errors:  ReplaceSnapshot throws osa::Exception that names the file and the reason; NoRoom for a full disk.
class UserSettingsFiles {
 public:
  // files: outlive the object. path: of the snapshot. Links are not followed here.
  UserSettingsFiles(FileSystem& files, std::string path);

  // mayRepair: make durable what is found, and put journals aside that belong to nothing; otherwise nothing is touched.
  // A damaged snapshot stays until the next one is there. Throws UserSettingsRefused when a file can't be read for a
  // reason that is not the disk's, before anything is touched; never for what the files are like.
  FoundUserSettings Find(bool mayRepair);

  // Makes the text the snapshot. Whatever fails or whenever the power goes, what counts is the old one or the new one,
  // whole. Returns what is worth knowing.
  std::vector<std::string> ReplaceSnapshot(const std::string& text, int64_t written);

  // How many snapshots took their place so far, and how many became the backup, also where what followed failed.
  size_t CountReplaced() const { return _replaced; }
  size_t CountBackups() const { return _backups; }

  // After a snapshot that holds everything.
  void RemoveJournals();

  // Removes the backup to make room on a full disk. False when there is none, or it may be needed: the snapshot is not
  // known to be good.
  bool RemoveBackup();

  // The journal on its way, which was given up: its room may be what the next snapshot needs.
  void RemoveNewJournal();

  // Whether that journal is the one that goes on. If not, Find removes it, unless there are entries of the history,
  // which nothing else may have: then the caller does, once these are elsewhere.
  static bool IsNewJournalUsed(const FoundUserSettings& found);

 private:
  Snapshot FindSnapshot(FoundUserSettings& found);
  Snapshot UseBackup(const Snapshot& damaged, Snapshot backup, FoundUserSettings& found);
  Snapshot UseNewSnapshot(Snapshot absent, FoundUserSettings& found);
  void ApplyJournal(const Snapshot& snapshot, bool mayRepair, FoundUserSettings& found);
  bool NoteRest(const FoundJournal& journal, const JournalReader& reader, bool mayRepair, FoundUserSettings& found);
  void RemoveLeftovers(const FoundUserSettings& found);
  void PutAside(const std::string& path, bool mayRepair, FoundUserSettings& found);
  void MakeDurable(FoundUserSettings& found);
  void WriteNewSnapshot(const std::string& newPath, const std::string& text, int64_t written);
  void KeepBackup();
  void KeepDamaged();
  void KeepBytes(const std::string& to);
  void SyncSnapshot();
  void WriteCopy(const std::string& path, std::string_view bytes);

  // Whether the content of what stands at the path is on the disk. A sync that failed is not repeated: the next one may
  // claim success.
  enum class Synced { kUnknown, kYes, kNo };

  FileSystem& _files;
  const std::string _path;
  Synced _synced = Synced::kUnknown;
  size_t _replaced = 0;
  size_t _backups = 0;
  bool _isDamaged = false;      // what stands at the path is not worth being the backup
  bool _damagedIsKept = false;  // under another name
  std::vector<std::string> _notices;
};

}  // namespace tavix::daemon
