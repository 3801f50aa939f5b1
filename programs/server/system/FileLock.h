#pragma once

#include <string>

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

// Keeps other daemons off something that has a path, by a lock on PATH.lock beside it. What stands at PATH may be
// replaced meanwhile. The lock ends with the process, however that ends; the destructor takes the lock's file away.
//
// Threads: one at a time.
class FileLock {
 public:
  // Another process has the lock.
  class Held : public osa::Exception {
   public:
    explicit Held(const std::string& message) : Exception(message) {}
  };

  // There is no lock's file and none can be made: the file system is full, read-only, broken or not there, or the
  // directory is not ours to write to.
  class CanNotBeMade : public osa::Exception {
   public:
    explicit CanNotBeMade(const std::string& message) : Exception(message) {}
  };

  // Throws Held, which names "path" and the process; CanNotBeMade; and osa::Exception when the lock's file is there and
  // can't be used, for example because another user's process made it: that may have the lock.
  explicit FileLock(const std::string& path);
  ~FileLock();

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  enum class Outcome { kLocked, kRemoved, kFailed };

  Outcome TryLock();
  void Open();
  bool IsThere() const;
  [[noreturn]] void Fail(const std::string& path, int error) const;
  void WriteOwner() const;
  std::string ReadOwner() const;

  const std::string _path;  // of the lock's file
  osa::Descriptor _file;
};

}  // namespace tavix::daemon
