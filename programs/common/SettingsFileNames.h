#pragma once

#include <string>

namespace tavix::programs {

// The names of the files beside a file of user settings, which docs/persistence.md describes. Links are not followed
// here: what a daemon keeps stands beside the file that its path leads to.

// Locked by the daemon that keeps the file.
inline std::string LockFileOf(const std::string& path) {
  return path + ".lock";
}

// The changes since the file was written.
inline std::string JournalOf(const std::string& path) {
  return path + ".journal";
}

// Who changed what in it. A second one has ".1" behind its name.
inline std::string HistoryOf(const std::string& path) {
  return path + ".history";
}

// The file as it was before.
inline std::string BackupOf(const std::string& path) {
  return path + ".bak";
}

// What was on trial when the file was written.
inline std::string TrialsOf(const std::string& path) {
  return path + ".trials";
}

// What begins the names of its checkpoints.
inline std::string CheckpointsOf(const std::string& path) {
  return path + ".checkpoint.";
}

// On its way to take a file's place.
inline std::string NewFileOf(const std::string& path) {
  return path + ".new";
}

// What begins the names under which a file that can't be read is kept.
inline std::string BadFilesOf(const std::string& path) {
  return path + ".bad-";
}

}  // namespace tavix::programs
