#pragma once

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::core {
class IniFile;
}

namespace tavix::settings::server {

class ChangeRecorder;

// The recorders that are active in one store. A change costs nothing when there is none.
//
// Threads: any. Changes are noted under the store's write lock, so that a reader that has the read lock finds all
//          changes that were made since its recorder began.
// Locks:   its own mutex, inside "SettingsMutex".
class ChangeRecorders {
 public:
  bool AreActive() const noexcept { return _count.load(std::memory_order_acquire) != 0; }

  // Note groups that change. Never throw: a recorder that there is no memory for reports that itself.
  void Note(const std::string& group) noexcept TAVIX_EXCLUDES(_mutex);
  void Note(const std::set<std::string>& groups) noexcept TAVIX_EXCLUDES(_mutex);
  void Note(const core::IniFile& groups) noexcept TAVIX_EXCLUDES(_mutex);

 private:
  friend class ChangeRecorder;

  void Add(ChangeRecorder* recorder) TAVIX_EXCLUDES(_mutex);
  void Remove(ChangeRecorder* recorder) noexcept TAVIX_EXCLUDES(_mutex);
  void ForEach(const std::function<void(ChangeRecorder&)>& note) noexcept TAVIX_EXCLUDES(_mutex);

  std::atomic<size_t> _count{0};
  osa::PlainMutex _mutex;  // guards what the recorders hold, too
  std::vector<ChangeRecorder*> _recorders TAVIX_GUARDED_BY(_mutex);
};

// Collects the names of the groups that change while it exists, for a reader of the store in parts.
//
// Threads: any.
// Errors:  std::bad_alloc.
class ChangeRecorder {
 public:
  // recorders: outlive the object.
  explicit ChangeRecorder(ChangeRecorders& recorders);
  ~ChangeRecorder();

  ChangeRecorder(const ChangeRecorder&) = delete;
  ChangeRecorder& operator=(const ChangeRecorder&) = delete;

  // The groups that changed since the last call. Throws std::bad_alloc when some could not be noted.
  std::set<std::string> Take();

 private:
  friend class ChangeRecorders;

  ChangeRecorders& _recorders;
  std::vector<std::string> _names;  // in the order of the changes: noting costs writers time
  bool _missesSome = false;
};

}  // namespace tavix::settings::server
