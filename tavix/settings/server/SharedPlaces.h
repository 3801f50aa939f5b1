#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

// Which groups of a document have their keys in another document, where they are the same: here these have none. Knows
// them by their places in memory, which take eight bytes a group. It is filled once; later groups only leave it.
//
// Threads: as a container.
class SharedPlaces {
 public:
  using Keys = core::IniFile::KeyMap;

  // place: the group's keys in the document, where they stay until the group leaves. count: of the keys that it has in
  // the other document. Throws std::bad_alloc.
  void Add(const Keys& place, size_t count);

  // Behind the last Add, before anything else is asked.
  void Seal();

  bool IsEmpty() const { return _count == 0; }
  bool Has(const Keys& place) const;

  // How many keys the groups have together.
  size_t CountKeys() const { return _keys; }

  // They get or lose so many.
  void AddKeys(std::ptrdiff_t keys) noexcept { _keys += static_cast<size_t>(keys); }

  // count: of the keys that the group has now. It leaves.
  void Remove(const Keys& place, size_t count) noexcept;

 private:
  using Place = std::uintptr_t;  // with the lowest bit set once the group has left

  static Place PlaceOf(const Keys& keys) { return reinterpret_cast<Place>(&keys); }
  size_t FindIndex(const Keys& place) const;

  std::vector<Place> _places;  // ascending
  size_t _count = 0;
  size_t _keys = 0;
};

}  // namespace tavix::settings::server
