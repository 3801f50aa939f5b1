#include "tavix/settings/server/SharedPlaces.h"

namespace tavix::settings::server {

void SharedPlaces::Add(const Keys& place, size_t count) noexcept {
  _slots[FindSlot(PlaceOf(place))] = PlaceOf(place);
  ++_count;
  _keys += count;
}

void SharedPlaces::Remove(const Keys& place, size_t count) noexcept {
  _slots[FindSlot(PlaceOf(place))] |= 1;
  _keys -= count;
  if (--_count == 0) _slots = std::vector<Place>();  // not {}: that would keep the memory
}

// Fibonacci hashing (Knuth, The Art of Computer Programming, 6.4), scaled to the number of slots. Other places follow.
size_t SharedPlaces::FindSlot(Place place) const {
  constexpr uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;
  const uint64_t hash = (place * kGoldenRatio) >> 32;
  auto slot = static_cast<size_t>((hash * _slots.size()) >> 32);
  while (_slots[slot] != place && _slots[slot] != kFree) slot = slot + 1 == _slots.size() ? 0 : slot + 1;
  return slot;
}

}  // namespace tavix::settings::server
