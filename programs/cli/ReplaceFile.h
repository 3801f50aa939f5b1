#pragma once

#include <string>

namespace tavix::cli {

// The bytes of a file, or of standard input when "path" is "-". Throws Failure, kExitBadInput, that says why it can't
// be read.
std::string ReadFile(const std::string& path);

// The directory of what "path" leads to, where links end.
std::string FindDirectory(const std::string& path);

// Replaces the file at "path", or makes it: written beside it, synced and renamed, so that whatever fails the file is
// the old one or the new one, whole. Keeps the old file's permissions, and follows a link to it.
// Throws Failure, kExitNotApplied, that names the file and the reason.
void ReplaceFile(const std::string& path, const std::string& text);

// Keeps other commands from changing files in the same directory as "path" until it is destroyed. A directory that
// can't be opened is not locked; what is to be done there fails with a better reason.
class FileLock {
 public:
  explicit FileLock(const std::string& path);
  ~FileLock();

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int _descriptor;
};

}  // namespace tavix::cli
