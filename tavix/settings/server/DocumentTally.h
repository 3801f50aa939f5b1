#pragma once

#include <atomic>
#include <cstddef>
#include <string>

namespace tavix::settings::server {

// How many keys a document of the store has, and how many bytes the names of its groups. Kept as the document changes,
// at the cost of the change.
//
// Threads: changed under the store's write lock; asked from any.
class DocumentTally {
 public:
  // Another document takes the place of this one.
  void Set(size_t keys, size_t nameBytes) {
    _keys.store(keys, std::memory_order_relaxed);
    _nameBytes.store(nameBytes, std::memory_order_relaxed);
  }

  void OnGroupAdded(const std::string& name, size_t keys) {
    OnKeysAdded(keys);
    _nameBytes.fetch_add(name.size(), std::memory_order_relaxed);
  }

  void OnGroupRemoved(const std::string& name, size_t keys) {
    _keys.fetch_sub(keys, std::memory_order_relaxed);
    _nameBytes.fetch_sub(name.size(), std::memory_order_relaxed);
  }

  void OnKeyRemoved() { _keys.fetch_sub(1, std::memory_order_relaxed); }

  void OnKeysAdded(size_t keys) { _keys.fetch_add(keys, std::memory_order_relaxed); }

  size_t CountKeys() const { return _keys.load(std::memory_order_relaxed); }
  size_t CountNameBytes() const { return _nameBytes.load(std::memory_order_relaxed); }

 private:
  std::atomic<size_t> _keys{0};
  std::atomic<size_t> _nameBytes{0};
};

}  // namespace tavix::settings::server
