#pragma once

#include <chrono>
#include <string>

#include "tavix/osa/Descriptor.h"

namespace tavix::programs::cli {

// The directory of what "path" leads to, where links end.
std::string FindDirectory(const std::string& path);

// Throws Failure, kExitNotApplied, when "path" leads to what is no plain file, or to the user settings of a daemon that
// runs, or whose journal still has to be merged: it would undo the change.
void RequireReplaceable(const std::string& path);

// Replaces the file at "path", or makes it: written beside it, synced and renamed, so that whatever fails the file is
// the old one or the new one, whole. Keeps the old file's permissions, and follows links to it.
// Throws Failure, kExitNotApplied, that names the file and the reason.
void ReplaceFile(const std::string& path, const std::string& text);

// Keeps other commands from changing files in the same directory as "path" until it is destroyed. A directory that
// does not exist is not locked; what is to be done there fails with a better reason.
//
// Threads: one.
// Errors:  the constructor throws Failure: kExitNoServer when another command holds the lock for longer than
//          "patience", kExitNotApplied when there can be no lock.
class FileLock {
 public:
  FileLock(const std::string& path, std::chrono::milliseconds patience);

 private:
  void Lock(const std::string& path, std::chrono::milliseconds patience) const;

  const osa::Descriptor _descriptor;
};

}  // namespace tavix::programs::cli
