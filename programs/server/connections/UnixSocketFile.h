#pragma once

#include <sys/types.h>

#include <string>

#include "programs/server/options/Options.h"
#include "programs/server/system/FileLock.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

// The place of a unix socket in the file system. A socket that a crash left there is replaced, one that somebody serves
// is not, and neither is anything else. The destructor takes the file away, if it is still this one.
//
// Threads: one at a time.
class UnixSocketFile {
 public:
  // path: where. Throws osa::Exception with the reason why the place can't be had.
  explicit UnixSocketFile(const std::string& path);
  ~UnixSocketFile();

  UnixSocketFile(const UnixSocketFile&) = delete;
  UnixSocketFile& operator=(const UnixSocketFile&) = delete;

  // Throws osa::Exception when there is no such group. group: as below.
  static void RequireGroup(const std::string& group);

  // Binds a new stream socket to the place and gives it these permissions; nobody can connect before it listens.
  // group: a name or a number; empty: leaves it.
  osa::Descriptor Bind(mode_t mode, const std::string& group);

 private:
  void RemoveStaleSocket() const;
  void SetPermissions(mode_t mode, const std::string& group) const;

  const std::string _path;
  FileLock _lock;
  bool _isBound = false;
  dev_t _device = 0;
  ino_t _inode = 0;
};

}  // namespace tavix::daemon
