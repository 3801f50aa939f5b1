#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "tests/faults/FileFaultControl.h"
#include "tests/support/Environment.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// Makes file calls of daemons fail, or stand still: those below one directory that change something, or make a change
// durable. Look-ups of hosts stand still, too. The daemons are those that are started while an Environment of it
// exists, with absolute paths.
//
// Threads: any, but for the environment.
class FileFaults {
 public:
  static constexpr uint64_t kForEver = UINT64_MAX;
  static constexpr int kShortWrite = FileFaultControl::kShortWrite;

  // directory: exists.
  explicit FileFaults(std::string directory);
  ~FileFaults();

  FileFaults(const FileFaults&) = delete;
  FileFaults& operator=(const FileFaults&) = delete;

  // Loads the faults into each process that is started. preload: the module's path.
  class Environment {
   public:
    Environment(const FileFaults& faults, const char* preload);

   private:
    const ScopedEnvironment _preload;
    const ScopedEnvironment _control;
    const ScopedEnvironment _directory;
    const ScopedEnvironment _addressSanitizer;
    const ScopedEnvironment _threadSanitizer;
  };

  // How many calls there were.
  uint64_t CountCalls() const { return _control->calls; }

  // These calls fail, counted from 1, until it is said otherwise. error: as errno has it, or kShortWrite.
  void Fail(int error, uint64_t from = 1, uint64_t to = kForEver);
  void Succeed() { _control->failsTo = 0; }

  // The daemon is killed before that call, counted from 1 as of now; 0: it is not.
  void KillBefore(uint64_t call) { _control->killsAt = call == 0 ? 0 : CountCalls() + call; }

  // Its wall clock is that much later than the system's from now on. Nobody moves the monotonic clock of a system.
  void MoveClock(std::chrono::seconds later) { _control->clockShift = later.count(); }

  // Syncs of files stand still, until LetSyncsGo or the end. name: what the files' paths hold.
  void HoldSyncs(const std::string& name = "");
  void LetSyncsGo();

  // The same for writes.
  void HoldWrites(const std::string& name);
  void ReleaseWrites();
  void AwaitHeldWrite() const;

  // Look-ups of hosts whose names hold that stand still, until the end.
  void HoldLookups(const std::string& host);
  void AwaitHeldLookup() const;

  // Syncs of files' content take no time from now on, however slow the disk is.
  void SkipSyncs() { _control->skipsSyncs = 1; }

  // Returns when a sync stands still.
  void AwaitHeldSync() const;
  bool IsSyncHeld() const { return _control->heldSyncs > 0; }

  // The name of the daemon's thread whose sync was begun last.
  std::string NameSyncingThread(pid_t daemon) const;

  // How many syncs of files were begun.
  uint64_t CountSyncs() const { return _control->syncs; }

 private:
  void SetHeldName(const std::string& name);

  const std::string _directory;
  const TemporaryDirectory _ownDirectory;
  const std::string _path;
  FileFaultControl* const _control;
};

}  // namespace tavix::test
