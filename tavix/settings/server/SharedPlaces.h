#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

// Which groups of a document have their keys in another document, where they are the same: here these have none. Knows
// them by their places in memory, in a hash table of 12 bytes a group on a processor of 64 bits. It is filled once;
// later groups only leave it.
//
// Threads: as a container.
class SharedPlaces {
 public:
  using Keys = core::IniFile::KeyMap;

  // For no group.
  SharedPlaces() = default;

  // For so many groups at most. Throws std::bad_alloc.
  explicit SharedPlaces(size_t maxGroups) : _slots(maxGroups + maxGroups / 2 + 1) {}

  // place: the group's keys in the document, where they stay until the group leaves. count: of the keys that it has in
  // the other document.
  void Add(const Keys& place, size_t count) noexcept;

  bool IsEmpty() const { return _count == 0; }
  bool Has(const Keys& place) const { return !IsEmpty() && _slots[FindSlot(PlaceOf(place))] != kFree; }

  size_t CountGroups() const { return _count; }

  // How many keys the groups have together.
  size_t CountKeys() const { return _keys; }

  // They get so many; negative: they lose some.
  void AddKeys(std::ptrdiff_t keys) noexcept { _keys += static_cast<size_t>(keys); }

  // count: of the keys that the group has now. It leaves.
  void Remove(const Keys& place, size_t count) noexcept;

 private:
  using Place = std::uintptr_t;  // with the lowest bit set once the group has left

  static constexpr Place kFree = 0;

  static Place PlaceOf(const Keys& keys) { return reinterpret_cast<Place>(&keys); }

  // The slot of the place, or the free one where it would be.
  size_t FindSlot(Place place) const;

  std::vector<Place> _slots;  // open addressing; a third is free
  size_t _count = 0;
  size_t _keys = 0;
};

}  // namespace tavix::settings::server
