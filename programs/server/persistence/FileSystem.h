#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

// The disk, or the user's share of it, is full.
class NoRoom : public osa::Exception {
 public:
  explicit NoRoom(const std::string& message) : Exception(message) {}
};

// A file that is open for writing. Closed by its destructor; what counts is whether Sync succeeded.
//
// Threads: one writes while another syncs.
// Errors:  osa::Exception that names the file and the reason; NoRoom for a full disk. After a failed Sync nobody knows
//          what is on the disk, and another Sync may claim success: the file is to be given up.
class File {
 public:
  virtual ~File() = default;

  // Fills a gap behind the file's end with zeros.
  virtual void WriteAt(uint64_t offset, std::string_view bytes) = 0;

  // Takes room on the disk for the file's first bytes, so that the disk can't be found full half-way. Throws when there
  // is none; then none is taken. Where the file system can't do that, nothing happens.
  virtual void Reserve(uint64_t bytes) = 0;

  // Gives back what the file has on the disk behind its first bytes, of which there are at least so many.
  virtual void Truncate(uint64_t bytes) = 0;

  // Begins to bring bytes that were written to the disk, so that a later Sync finds less to do. awaitsEarlier: returns
  // once the bytes before them are there that the last call began with: so a sync of another file never finds much in
  // its way. Makes nothing durable. A failure is that of a Sync. Where the system can't do that, nothing happens.
  virtual void WriteOut(uint64_t offset, uint64_t bytes, bool awaitsEarlier) = 0;

  // Returns once everything that was written before is on the disk, a modification time that was set too. The file's
  // name may not be.
  virtual void Sync() = 0;

  // nanoseconds: since the epoch.
  virtual void SetModificationTime(int64_t nanoseconds) = 0;
};

// What a path leads to.
struct FileContent {
  bool exists = false;
  std::string problem;           // why there are not all bytes although something exists; empty: there are
  std::string bytes;             // of a file that is too large to be read: how it begins and how it ends
  int64_t modificationTime = 0;  // nanoseconds since the epoch
  int error = 0;                 // of the call that failed, as errno has it; 0: none did
  bool isRegular = true;         // links followed
};

// The calls that keeping the user settings takes, and no others, so that tests can fail each of them, and can cut the
// power between any two.
//
// Errors: osa::Exception that names the file and the reason; NoRoom for a full disk.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // A new, empty file for its owner only; what stood there is removed first. Never writes through a link.
  virtual std::unique_ptr<File> Create(const std::string& path) = 0;

  // An existing file, to be written to.
  virtual std::unique_ptr<File> Open(const std::string& path) = 0;

  // Throws nothing but std::bad_alloc. Only regular files have content, and those that could be ours by their size;
  // nothing else is opened or waited for.
  virtual FileContent Read(const std::string& path) = 0;

  // As Read, but the bytes are handed over piece by piece until "onPiece" returns false, and the content has none. A
  // piece ends with a line feed, but for the last; what is too large to be read is one piece, how it begins and how it
  // ends. Where the content has an error, pieces that came before it count for nothing.
  using OnPiece = std::function<bool(std::string_view piece)>;
  virtual FileContent ReadPieces(const std::string& path, const OnPiece& onPiece) = 0;

  // Bytes of a regular file; fewer where it ends. Waits for nothing else than the disk.
  virtual std::string ReadPart(const std::string& path, uint64_t offset, size_t bytes) = 0;

  // Replaces what stands at "to", as one step.
  virtual void Rename(const std::string& from, const std::string& to) = 0;

  // A second name for a file; there must be nothing at "to".
  virtual void Link(const std::string& from, const std::string& to) = 0;

  // Something absent is no error.
  virtual void Remove(const std::string& path) = 0;

  virtual bool Exists(const std::string& path) = 0;

  // The paths that begin with this one, in any order.
  virtual std::vector<std::string> FindNames(const std::string& begin) = 0;

  // Returns once the content of an existing file is on the disk. Another process may have written it, and it need not
  // be writable.
  virtual void Sync(const std::string& path) = 0;

  // Returns once the names in the file's directory are on the disk.
  virtual void SyncDirectoryOf(const std::string& path) = 0;
};

// Removes what is of no use; a failure is logged at trace level and ignored.
void RemoveQuietly(FileSystem& files, const std::string& path);

// The files of this machine.
FileSystem& GetSystemFiles();

}  // namespace tavix::daemon
