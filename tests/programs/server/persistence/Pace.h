#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "tests/support/MemoryFiles.h"

namespace tavix::test {

// Makes a disk in memory as slow as a real one is beside changes: each operation for which nobody holds a lock that a
// change takes, lasts until some more changes were made, or nobody makes any.
//
// Threads: any.
class Pace {
 public:
  // The files' observer.
  void OnOperation(const MemoryFiles::Operation& operation) {
    using Kind = MemoryFiles::Operation::Kind;
    const bool isSync = operation.kind == Kind::kSync || operation.kind == Kind::kSyncDirectory;
    if (!isSync && operation.kind != Kind::kLink) return;
    std::unique_lock<std::mutex> lock(_mutex);
    const size_t until = _changes + ++_operations % 4;
    _changed.wait(lock, [&] { return _rests || _changes >= until; });
  }

  void OnChange() {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_changes;
    _changed.notify_all();
  }

  // No changes are made until the next call.
  void Rest(bool rests) {
    std::lock_guard<std::mutex> lock(_mutex);
    _rests = rests;
    _changed.notify_all();
  }

 private:
  std::mutex _mutex;  // guards what follows
  std::condition_variable _changed;
  size_t _changes = 0;
  size_t _operations = 0;
  bool _rests = false;
};

}  // namespace tavix::test
