#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tavix::test {

// What a test and the file faults that it had loaded into another process say to each other: a file that both map.
// All zero: no call fails, none is held.
struct FileFaultControl {
  static constexpr char kPathVariable[] = "TAVIX_FILE_FAULTS";                 // this file's path
  static constexpr char kDirectoryVariable[] = "TAVIX_FILE_FAULTS_DIRECTORY";  // calls on what is below it count
  static constexpr int kShortWrite = -1;
  static constexpr size_t kLongestName = 64;

  std::atomic<uint64_t> calls;      // how many there were, this process and those before
  std::atomic<uint64_t> failsFrom;  // the number of the first call that fails, ...
  std::atomic<uint64_t> failsTo;    // ... of the last; 0: none does
  std::atomic<uint64_t> killsAt;    // before the call of that number the process is killed; 0: never
  std::atomic<int> error;           // what a failing call leaves in errno; or kShortWrite: a write writes half

  std::atomic<uint64_t> syncs;         // of files' content, begun
  std::atomic<uint32_t> holdsSyncs;    // they do not go on while this is not 0; a futex
  std::atomic<uint32_t> heldSyncs;     // how many stand there
  std::atomic<int32_t> syncingThread;  // the kernel's number of the thread whose sync began last
  std::atomic<uint32_t> skipsSyncs;    // not 0: they take no time, as the disk is not asked
  std::atomic<uint32_t> holdsWrites;   // the same for writes, and for taking room for them
  std::atomic<uint32_t> heldWrites;
  std::atomic<uint32_t> holdsLookups;  // the same for look-ups of hosts; their names are what the part is of
  std::atomic<uint32_t> heldLookups;
  std::atomic<int64_t> clockShift;  // in seconds: how much later the wall clock is; the monotonic one never is
  char heldName[kLongestName];      // the part of a path that tells which are held; empty: all. Set before a hold
};

}  // namespace tavix::test
