#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tavix::daemon {

// A file that is open for writing. Closed by its destructor; what counts is whether Sync succeeded.
//
// Threads: one writes while another syncs.
// Errors:  osa::Exception that names the file and the reason. After a failed Sync nobody knows what is on the disk, and
//          another Sync may claim success: the file is to be given up.
class File {
 public:
  virtual ~File() = default;

  // Fills a gap behind the file's end with zeros.
  virtual void WriteAt(uint64_t offset, std::string_view bytes) = 0;

  // Takes room on the disk for the file's first bytes, so that the disk can't be found full half-way. Throws when there
  // is none; then none is taken. Where the file system can't do that, nothing happens.
  virtual void Reserve(uint64_t bytes) = 0;

  // Returns once everything that was written before is on the disk, a modification time that was set too. The file's
  // name may not be.
  virtual void Sync() = 0;

  // nanoseconds: since the epoch.
  virtual void SetModificationTime(int64_t nanoseconds) = 0;
};

// What a path leads to.
struct FileContent {
  bool exists = false;
  std::string problem;  // why there are no bytes although something exists; empty: there are
  std::string bytes;
  int64_t modificationTime = 0;  // nanoseconds since the epoch
};

// The calls that keeping the user settings takes, and no others, so that tests can fail each of them, and can cut the
// power between any two.
//
// Errors: osa::Exception that names the file and the reason.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // A new, empty file for its owner only; what stood there is removed first. Never writes through a link.
  virtual std::unique_ptr<File> Create(const std::string& path) = 0;

  // An existing file, to be written to.
  virtual std::unique_ptr<File> Open(const std::string& path) = 0;

  // Throws nothing but std::bad_alloc. Only regular files have content, and those that could be ours by their size;
  // nothing else is waited for.
  virtual FileContent Read(const std::string& path) = 0;

  // Replaces what stands at "to", as one step.
  virtual void Rename(const std::string& from, const std::string& to) = 0;

  // A second name for a file; there must be nothing at "to".
  virtual void Link(const std::string& from, const std::string& to) = 0;

  // Something absent is no error.
  virtual void Remove(const std::string& path) = 0;

  virtual bool Exists(const std::string& path) = 0;

  // Returns once the content of an existing file is on the disk, whoever wrote it. It need not be writable.
  virtual void Sync(const std::string& path) = 0;

  // Returns once the names in the file's directory are on the disk.
  virtual void SyncDirectoryOf(const std::string& path) = 0;
};

// Removes what is of no use; a failure is none of anybody's business.
void RemoveQuietly(FileSystem& files, const std::string& path);

// The files of this machine.
FileSystem& GetSystemFiles();

}  // namespace tavix::daemon
