#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "programs/common/SettingsFileNames.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/JournalText.h"

namespace tavix::daemon {

// The changes since a snapshot, appended to a file. A new journal is written beside the old one, and takes its place
// when it is synced for the first time: until then what was synced into the old one counts.
//
// In order: a journal is created at FILE.journal.new, gets records, and counts once Begin has written its header. From
// then on it goes on to get records. When it is synced for the first time it takes its place at FILE.journal, by a
// rename. After any failure it is given up: nobody knows what the file holds.
//
// The file is filled with zeros ahead of its records where there is room, so that a sync has no metadata to write. On a
// full disk the last of them, the spare room, stay free of records. GiveRoomBack gives zeros back to the disk, for a
// snapshot that takes the journal's place; if that fails the journal goes on, and FillAgain lets it fill ahead again.
//
// Its many members are three parts of one file, which one record moves together: where the records end, how far the
// file is filled, and where it stands. Its many methods are the steps of that order, and questions about the three.
//
// Threads: one appends, or gives room back, while another syncs records or the name; taking the place is for one at a
//          time.
// Errors:  osa::Exception from the file system; the journal is then to be given up.
class Journal {
 public:
  static std::string PathOf(const std::string& snapshotPath) { return programs::JournalOf(snapshotPath); }
  static std::string NewPathOf(const std::string& snapshotPath) {
    return programs::NewFileOf(programs::JournalOf(snapshotPath));
  }

  // A new journal that counts once it has begun. files: outlive it.
  static std::unique_ptr<Journal> Create(FileSystem& files, const std::string& snapshotPath, const SnapshotId& follows);

  // The same, begun with these changes. What fails leaves nothing.
  static std::unique_ptr<Journal> Create(FileSystem& files, const std::string& snapshotPath, const SnapshotId& follows,
                                         const std::vector<Change>& changes);

  // Goes on where the reader ended. What stands behind, of a change that was never finished, is wiped out: a change
  // that is made again must not bring back those that once followed it. To be synced before anything is appended.
  static std::unique_ptr<Journal> Resume(FileSystem& files, const std::string& snapshotPath, bool isInPlace,
                                         const JournalReader& reader, uint64_t fileSize);

  // When a change that is appended is written.
  enum class Write {
    kAtOnce,    // before Append returns; what is buffered by then is written with it
    kBuffered,  // by WriteBuffered, or with a later change
  };

  // Written, but not synced. A change that is buffered has its place: GetEnd is behind it.
  void Append(const Change& change, Write write = Write::kAtOnce);

  // Writes all changes that are buffered, by one write. To be called before a sync, BeginAppend, Begin or GiveRoomBack.
  void WriteBuffered();

  // The same in three steps, of which the second takes long and may run beside everything but appends. BeginAppend
  // gives a change its place: GetEnd is behind it. WriteAppended has "writeTexts" write its two texts, in as many
  // pieces as it likes. EndAppend comes after a WriteAppended that failed, too: then the change is not there.
  using Texts = std::function<void(const std::function<void(std::string_view)>& write)>;
  void BeginAppend(const RecordLine& line);
  void WriteAppended(const Texts& writeTexts);
  void EndAppend();

  // The room behind the records that stays free of them: a snapshot of few settings finds it, however full the disk is.
  static constexpr uint64_t kSpare = 16 * 1024;

  // Gives the room behind the last record back to the disk, and fills nothing ahead until the second is called.
  // withSpare: the spare room, too. A longer snapshot must not get that: if no next journal can be made behind it, this
  // one goes on, and the spare room is all that there is for the next try. Not beside an Append; does nothing between
  // BeginAppend and EndAppend.
  void GiveRoomBack(bool withSpare);
  void FillAgain() { _fillsAhead = true; }

  // Whether there was no room for that, which is true of a full disk alone. The second tries once more to take it; for
  // the thread that appends.
  bool LacksSpareRoom() const { return _lacksRoom && _spare == 0; }
  void TakeSpareRoom() { FillAhead(_end); }

  // From now on a new journal counts, instead of the one before: with all that was appended so far, or not at all.
  void Begin();

  // Returns once what was appended before is on the disk, and will be found there: the three steps below.
  void Sync();

  void SyncRecords();

  // Makes the journal the one that is found, synced or not. Does nothing when it is. Not while another is made, which
  // would get its place.
  void TakePlace();
  bool IsInPlace() const { return _isInPlace; }

  // Of a journal that is in place.
  void SyncName();

  const SnapshotId& GetFollowed() const { return _follows; }

  // Behind the last record.
  uint64_t GetEnd() const { return _end; }
  bool HasChanges() const { return _end > kJournalHeaderSize; }

 private:
  Journal(FileSystem& files, const std::string& snapshotPath, const SnapshotId& follows)
      : _files(files), _snapshotPath(snapshotPath), _follows(follows), _checksum(BeginJournalChecksum(follows)) {}

  // A change that was given its place.
  struct Appending {
    uint64_t begin = 0;
    RecordLine line;
    bool isWritten = false;
    bool isUnderWay = false;
  };

  void RequireRoom(uint64_t end) const;
  void NoteExtension();
  void FillAhead(uint64_t end);
  bool ReserveAhead(uint64_t end);
  bool TryToFill(uint64_t end);

  FileSystem& _files;
  const std::string _snapshotPath;
  const SnapshotId _follows;
  std::unique_ptr<File> _file;
  std::atomic<bool> _isInPlace{false};
  bool _nameIsSynced = false;  // the syncing thread's
  uint64_t _end = kJournalHeaderSize;
  std::string _buffered;  // the last bytes before _end, which are not written yet
  bool _hasBegun = false;
  bool _extends = false;  // has a change that extends groups, and says so once it has begun
  uint64_t _filled = 0;   // so far the file has been written to
  std::atomic<bool> _fillsAhead{true};
  uint64_t _spare = 0;      // of that, what stays free of records
  bool _lacksRoom = false;  // when it was last tried to fill ahead
  uint32_t _checksum;
  Appending _appending;
};

}  // namespace tavix::daemon
