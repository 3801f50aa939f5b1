#include "tavix/settings/server/SharedPlaces.h"

#include <algorithm>

namespace tavix::settings::server {

void SharedPlaces::Add(const Keys& place, size_t count) {
  _places.push_back(PlaceOf(place));
  ++_count;
  _keys += count;
}

void SharedPlaces::Seal() {
  if (!std::is_sorted(_places.begin(), _places.end())) std::sort(_places.begin(), _places.end());
}

bool SharedPlaces::Has(const Keys& place) const {
  return !IsEmpty() && FindIndex(place) < _places.size();
}

void SharedPlaces::Remove(const Keys& place, size_t count) noexcept {
  _places[FindIndex(place)] |= 1;
  _keys -= count;
  if (--_count == 0) std::vector<Place>().swap(_places);
}

// As many as there are places when the group is not in it.
size_t SharedPlaces::FindIndex(const Keys& place) const {
  const auto found = std::lower_bound(_places.begin(), _places.end(), PlaceOf(place));
  const bool isThere = found != _places.end() && *found == PlaceOf(place);
  return isThere ? static_cast<size_t>(found - _places.begin()) : _places.size();
}

}  // namespace tavix::settings::server
