#include "tavix/settings/server/StoreAccount.h"

#include <algorithm>
#include <iterator>

#include "tavix/core/SideBySide.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

constexpr size_t kLinksOfANode = 4 * sizeof(void*);  // of a red-black tree: three pointers and a colour
constexpr size_t kAlignment = 2 * sizeof(size_t);

// What the allocator takes for so many bytes: a word of its own, rounded.
constexpr size_t Allocated(size_t bytes) {
  return (bytes + sizeof(size_t) + kAlignment - 1) / kAlignment * kAlignment;
}

constexpr size_t kSetting = Allocated(kLinksOfANode + sizeof(IniFile::KeyMap::value_type));
constexpr size_t kGroup = Allocated(kLinksOfANode + sizeof(IniFile::GroupMap::value_type));

size_t CountText(const std::string& text) {
  static const size_t inlineCapacity = std::string().capacity();
  return text.size() <= inlineCapacity ? 0 : Allocated(text.size() + 1);
}

std::ptrdiff_t Difference(size_t more, size_t less) {
  return static_cast<std::ptrdiff_t>(more) - static_cast<std::ptrdiff_t>(less);
}

struct Content {
  size_t bytes = 0;
  size_t keys = 0;
  size_t nameBytes = 0;
};

// half: the first, 0, or the second, 1.
Content CountHalf(const IniFile::GroupMap& groups, size_t half) {
  const size_t middle = groups.size() / 2;
  const size_t count = half == 0 ? middle : groups.size() - middle;
  auto group = half == 0 ? groups.begin() : std::prev(groups.end(), static_cast<std::ptrdiff_t>(count));
  Content content;
  for (size_t i = 0; i < count; ++i, ++group) {
    content.bytes += StoreAccount::CountGroup(group->first, group->second);
    content.keys += group->second.size();
    content.nameBytes += group->first.size();
  }
  return content;
}

size_t CountNamed(const IniFile& document, const std::string& name) {
  const auto group = document.GetGroups().find(name);
  return group == document.GetGroups().end() ? 0 : StoreAccount::CountGroup(group->first, group->second);
}

}  // namespace

size_t StoreAccount::CountSetting(const std::string& key, const std::string& value) {
  return kSetting + CountText(key) + CountText(value);
}

size_t StoreAccount::CountGroup(const std::string& name, const IniFile::KeyMap& keys) {
  size_t bytes = kGroup + CountText(name);
  for (const auto& [key, value] : keys) bytes += CountSetting(key, value);
  return bytes;
}

size_t StoreAccount::Count(const IniFile& document) {
  size_t bytes = 0;
  for (const auto& [name, keys] : document) bytes += CountGroup(name, keys);
  return bytes;
}

std::ptrdiff_t StoreAccount::CountGrowth(const IniFile& document, const IniFile& settings) {
  std::ptrdiff_t growth = 0;
  for (auto group = settings.begin(); group != settings.end(); ++group) growth += CountGrowth(document, group);
  return growth;
}

std::ptrdiff_t StoreAccount::CountGrowth(const IniFile& document, IniFile::const_iterator group) {
  const auto own = document.GetGroups().find(group->first);
  if (own == document.GetGroups().end()) return Difference(CountGroup(group->first, group->second), 0);
  std::ptrdiff_t growth = 0;
  for (const auto& [key, value] : group->second) {
    const auto before = own->second.find(key);
    growth += before == own->second.end() ? Difference(CountSetting(key, value), 0)
                                          : Difference(CountText(value), CountText(before->second));
  }
  return growth;
}

std::ptrdiff_t StoreAccount::CountGrowth(const IniFile& one, const IniFile& other, const std::set<std::string>& removed,
                                         const Groups& set) {
  std::ptrdiff_t growth = 0;
  for (const std::string& name : removed) growth -= Difference(CountNamed(one, name) + CountNamed(other, name), 0);
  for (const auto& group : set) {
    growth += removed.count(group->first) != 0 ? Difference(2 * CountGroup(group->first, group->second), 0)
                                               : CountGrowth(one, group) + CountGrowth(other, group);
  }
  return growth;
}

void StoreAccount::CountAnew(const IniFile& allSettings, const IniFile& userSettings, const HiddenLayers& hidden) {
  Content all[2];
  Content user[2];
  const auto countHalf = [&](size_t half) {
    all[half] = CountHalf(allSettings.GetGroups(), half);
    user[half] = CountHalf(userSettings.GetGroups(), half);
  };
  constexpr size_t kLarge = 10000;  // groups
  if (allSettings.GetGroups().size() + userSettings.GetGroups().size() < kLarge) {
    countHalf(0);
    countHalf(1);
  } else {
    core::RunSideBySide([&] { countHalf(0); }, [&] { countHalf(1); });
  }
  _allTally.Set(all[0].keys + all[1].keys, all[0].nameBytes + all[1].nameBytes);
  _userTally.Set(user[0].keys + user[1].keys, user[0].nameBytes + user[1].nameBytes);
  Set(all[0].bytes + all[1].bytes + user[0].bytes + user[1].bytes + Count(hidden.defaults) + Count(hidden.unsaved) +
      Count(hidden.restricted));
}

void StoreAccount::RemoveGroup(IniFile& document, DocumentTally& tally, const std::string& name) noexcept {
  const auto group = document.GetGroups().find(name);
  if (group == document.GetGroups().end()) return;
  _bytes -= CountGroup(group->first, group->second);
  tally.OnGroupRemoved(group->first, group->second.size());
  document.RemoveGroup(name);
}

bool StoreAccount::HasRoom(size_t growth) const {
  const size_t bytes = _bytes;
  const size_t bound = _bound;
  return bound == 0 || growth == 0 || (bytes <= bound && growth <= bound - bytes);
}

void StoreAccount::RequireRoom(std::ptrdiff_t growth, std::ptrdiff_t hidden) const {
  const std::ptrdiff_t sum = growth + hidden;
  if (growth <= 0 || sum <= 0 || HasRoom(static_cast<size_t>(sum))) return;
  const size_t bytes = _bytes;
  const size_t bound = _bound;
  throw RefusedChange(RefusedChange::Reason::kStoreFull, "the store holds about " + std::to_string(bytes) +
                                                             " bytes of the " + std::to_string(bound) +
                                                             " allowed, and would grow by " + std::to_string(sum));
}

LateCount::~LateCount() {
  Finish();
}

void LateCount::Finish() {
  for (size_t i = 0; i < _count; ++i) _account.Add(-Difference(StoreAccount::Count(*_documents[i]), 0));
  _count = 0;
}

void LateCount::Subtract(const IniFile& document) {
  _documents.at(_count++) = &document;
}

void LateCount::Subtract(const IniFile& one, const IniFile& other) {
  Subtract(one);
  Subtract(other);
}

}  // namespace tavix::settings::server
