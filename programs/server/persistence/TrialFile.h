#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "programs/common/SettingsFileNames.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/SnapshotId.h"

namespace tavix::daemon {

// FILE.trials: which trials were pending at the moments of snapshots, as the lines of trials/TrialText.h. It has a
// section for the snapshot that stands, for its backup, and for the one that is about to take its place; so whichever
// counts when the power has gone has its own.
//
// In order: Load; then for each snapshot Write before it takes its place, OnBackedUp once the one before is the backup,
// and OnReplaced behind that.
//
// Threads: one at a time.
// Errors:  Write throws osa::Exception that names the file and the reason, NoRoom for a full disk; Load throws
//          UserSettingsRefused when resources run out, and nothing for what the file is like.
class TrialFile {
 public:
  static std::string PathOf(const std::string& snapshotPath) { return programs::TrialsOf(snapshotPath); }

  // files: outlive the object.
  TrialFile(FileSystem& files, const std::string& snapshotPath) : _files(files), _path(PathOf(snapshotPath)) {}

  // The lines that belong to a snapshot. problems: gets what is damaged.
  std::string Load(const SnapshotId& snapshot, std::vector<std::string>& problems);

  // The lines are on the disk when it returns. Nothing is written as long as nothing is on trial.
  void Write(const SnapshotId& next, std::string lines);

  // The snapshot that stands is the backup, too: none of those before counts any more.
  void OnBackedUp();

  // The snapshot of the last Write stands.
  void OnReplaced();

 private:
  struct Section {
    SnapshotId snapshot;
    std::string lines;
  };

  static std::string Spell(const Section& section);
  static std::optional<Section> TakeSection(std::string_view& text);
  FileContent Read() const;
  void Replace(const std::string& text);

  FileSystem& _files;
  const std::string _path;
  std::vector<Section> _earlier;  // of the backup, or of all that may be it
  Section _current;               // of the snapshot that stands
  Section _next;                  // of the one that is about to
  std::string _text;              // of the file
  bool _isKnown = false;          // what is in the file
};

}  // namespace tavix::daemon
