#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "programs/common/SettingsFileNames.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/HistoryParts.h"
#include "programs/server/persistence/HistoryText.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// An entry as it stands in a file: its lines, then an end line with their CRC-32.
std::string SealEntry(uint64_t revision, const HistoryLines& lines);

// Walks through the bytes of a file of entries, damaged ones left out.
class HistoryReader {
 public:
  // bytes: outlive the reader.
  explicit HistoryReader(std::string_view bytes) : _bytes(bytes) {}

  // The next whole entry. False at the end.
  bool Next();
  std::string_view GetLines() const { return _lines; }  // without the end line
  size_t GetBegin() const { return _begin; }
  size_t GetEnd() const { return _end; }  // behind the entry

  // How many were left out so far; an entry at the end that was never finished does not count.
  size_t CountDamaged() const { return _damaged; }

 private:
  const std::string_view _bytes;
  size_t _at = 0;
  std::string_view _lines;
  size_t _begin = 0;
  size_t _end = 0;
  size_t _damaged = 0;
};

// The history of the user settings in two files: FILE.history gets the entries, and becomes FILE.history.1 when it has
// grown to half of the bytes that both may take.
//
// In order: Load, then entries are appended, each behind those before. What is appended is on the disk when Append
// returns. After a failure the next Append looks anew for where the file ends. Where revisions are missing between
// those that are there and those that are appended, one comes whose command is "gap". What the disk can't read is put
// aside under another name, and what was never a history stays as it is.
//
// Threads: one at a time; the three operations that read may be called from any, also beside an Append.
// Locks:   the mutex for names is held while a part is read, and while FILE.history becomes FILE.history.1; the own
//          mutex, inside it, while no file is touched. No thread that serves clients takes the first.
// Errors:  Append and ReadPart throw osa::Exception that names the file and the reason; Load throws nothing for what
//          the files are like.
class HistoryFile {
 public:
  static std::string PathOf(const std::string& snapshotPath) { return programs::HistoryOf(snapshotPath); }
  static std::string OldPathOf(const std::string& snapshotPath) { return programs::HistoryOf(snapshotPath) + ".1"; }

  // files: outlive the object. maxBytes: of both files.
  HistoryFile(FileSystem& files, std::string snapshotPath, size_t maxBytes)
      : _files(files), _snapshotPath(std::move(snapshotPath)), _maxBytes(maxBytes) {}

  // Returns the last revision that is there; 0: none. journalBegin: the first revision of which the journal has an
  // entry, 0: it has none. The power may have gone while these were appended: what stands behind a damaged one is to be
  // appended once more. problems: gets what is damaged, and why
  // nothing is known of the files; then Append looks again.
  uint64_t Load(uint64_t journalBegin, std::vector<std::string>& problems) TAVIX_EXCLUDES(_mutex);

  // Whether it is there, or was: all stand in their order, and both files may be too small for all of the journal's.
  bool Has(uint64_t revision) const { return revision <= _last; }

  // Those whose revision is there already are left out. problems: as those of Load, of files that were looked at anew.
  void Append(const HistoryItems& entries, std::vector<std::string>& problems) TAVIX_EXCLUDES(_mutex);

  // Removes FILE.history.1, to make room. False when there is none of ours.
  bool RemoveOld() TAVIX_EXCLUDES(_nameMutex, _mutex);

  // Which revisions are there.
  HistoryParts::Range GetRange() const TAVIX_EXCLUDES(_mutex);

  // The last part of the files that has a revision below this one. Empty: there is none.
  std::optional<HistoryParts::Part> FindPart(uint64_t revision) const TAVIX_EXCLUDES(_mutex);

  // How a part begins, as it stands in its file, damage included. Empty: the files are others by now, and the part is
  // to be found anew.
  std::optional<std::string> ReadPart(const HistoryParts::Part& part, size_t maxBytes) const
      TAVIX_EXCLUDES(_nameMutex, _mutex);

 private:
  void Look(uint64_t journalBegin, std::vector<std::string>& problems) TAVIX_EXCLUDES(_mutex);
  uint64_t LookAtOld(HistoryParts& parts, std::vector<std::string>& problems);
  FileContent Read(const std::string& path, std::vector<std::string>& problems);
  void SetParts(HistoryParts&& parts) TAVIX_EXCLUDES(_mutex);
  uint64_t GetGeneration() const TAVIX_EXCLUDES(_mutex);
  void AddOne(uint64_t revision, const HistoryLines& lines) TAVIX_EXCLUDES(_mutex);
  void Open(std::vector<std::string>& problems) TAVIX_EXCLUDES(_mutex);
  void Rotate() TAVIX_EXCLUDES(_nameMutex, _mutex);
  void Write();
  void Sync() TAVIX_EXCLUDES(_mutex);

  FileSystem& _files;
  const std::string _snapshotPath;
  const size_t _maxBytes;
  std::unique_ptr<File> _file;  // null: to be opened
  bool _isSynced = false;       // what was in the open file before, and its name
  bool _hasUnsynced = false;    // written since the last sync
  std::string _text;            // comes next, and waits for more
  bool _isOldForeign = true;    // FILE.history.1, or nobody knows
  bool _isKnown = false;        // what follows
  size_t _end = 0;              // of FILE.history, behind what is to be kept of it, and what comes next
  bool _exists = false;         // FILE.history
  bool _isForeign = false;      // something else stands there
  uint64_t _last = 0;           // the last revision that is there

  struct Written {
    uint64_t revision = 0;
    bool isGap = false;
    uint64_t offset = 0;
    size_t bytes = 0;
  };
  std::vector<Written> _written;  // since the last sync, or next

  mutable osa::PlainMutex _nameMutex;
  mutable osa::PlainMutex _mutex;
  HistoryParts _parts TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::daemon
