#include "programs/web/changes/ChangeRing.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

namespace tavix::web {

void ChangeRing::Begin(const std::string& name) {
  _name = name;
  _changes.clear();
  _first = 1;
  _bytes = 0;
}

void ChangeRing::Add(ChangePointer change) {
  _bytes += change->CountBytes();
  _changes.push_back(std::move(change));
  while (_changes.size() > kMaxChanges || _bytes > kMaxBytes) {
    _bytes -= _changes.front()->CountBytes();
    _changes.pop_front();
    ++_first;
  }
}

std::vector<ChangeRing::Item> ChangeRing::FindBehind(uint64_t number) const {
  std::map<std::string, Item> joined;
  for (uint64_t at = number + 1; at <= GetLast(); ++at) {
    const ChangePointer& change = _changes[at - _first];
    const auto [place, isNew] = joined.try_emplace(change->group, Item{at, at, change, change});
    if (isNew) continue;
    place->second.number = at;
    place->second.change = change;
  }
  std::vector<Item> items;
  for (auto& [group, item] : joined) items.push_back(std::move(item));
  std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.number < b.number; });
  return items;
}

std::optional<uint64_t> ChangeRing::ParseId(const std::string& id) const {
  const std::string begin = _name + "-";
  if (_name.empty() || id.compare(0, begin.size(), begin) != 0) return std::nullopt;
  uint64_t number = 0;
  const char* const last = id.data() + id.size();
  const auto [end, error] = std::from_chars(id.data() + begin.size(), last, number);
  if (error != std::errc() || end != last || !IsKept(number)) return std::nullopt;
  return number;
}

}  // namespace tavix::web
