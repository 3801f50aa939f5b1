#include "tavix/settings/ResourceFigures.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "tavix/core/StringUtil.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings {

using core::IniFile;

namespace {

constexpr char kPrefix[] = "Resources/";
constexpr char kTotalAvailable[] = "TotalAvailable";
constexpr char kCurrentlyUsed[] = "CurrentlyUsed";
constexpr char kMaxAllowed[] = "MaxAllowed";
constexpr int kDefaultTotal = 100;
constexpr double kRoundingMiss = 0.01;

std::string ConsumersPrefix(const std::string& resource) {
  return ResourceFigures::GroupOf(resource) + "/Consumers/";
}

std::string AllowedGroup(const std::string& resource) {
  return ResourceFigures::GroupOf(resource) + "/AllowedConsumers";
}

// The names behind the prefix, each up to its next slash. A set, as "a" and its sub-group "a/x" need not be neighbours:
// "a-b" sorts between them.
std::set<std::string> FindNames(const IniFile& document, const std::string& prefix) {
  std::set<std::string> names;
  const IniFile::GroupMap& groups = document.GetGroups();
  for (auto at = groups.lower_bound(prefix); at != groups.end(); ++at) {
    if (!core::StringUtil::StartsWith(at->first, prefix)) break;
    names.insert(at->first.substr(prefix.size(), at->first.find('/', prefix.size()) - prefix.size()));
  }
  return names;
}

int Saturated(long long value) {
  constexpr long long kLowest = std::numeric_limits<int>::min();
  constexpr long long kHighest = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp(value, kLowest, kHighest));
}

}  // namespace

std::string ResourceFigures::GroupOf(const std::string& resource) {
  return kPrefix + resource;
}

std::string ResourceFigures::GroupOf(const std::string& consumer, const std::string& resource) {
  return ConsumersPrefix(resource) + consumer;
}

bool ResourceFigures::IsWritable(const std::string& consumer, const std::string& resource) {
  return !server::GroupDiscriminator::IsRestrictedGroup(GroupOf(consumer, resource));
}

bool ResourceFigures::IsCounted(const std::string& consumer) {
  return consumer.find('/') == std::string::npos;
}

void ResourceFigures::SetUsed(const std::string& consumer, const std::string& resource, int amount, IniFile& document) {
  document.SetInt(GroupOf(consumer, resource), kCurrentlyUsed, amount);
}

std::set<std::string> ResourceFigures::GetResources() const {
  return FindNames(_document, kPrefix);
}

std::set<std::string> ResourceFigures::GetConsumers(const std::string& resource) const {
  std::set<std::string> consumers = FindBookers(resource);
  const std::string allowed = AllowedGroup(resource);
  if (!_document.HasGroup(allowed)) return consumers;
  for (const auto& [key, consumer] : _document[allowed]) consumers.insert(consumer);
  return consumers;
}

int ResourceFigures::GetTotal(const std::string& resource) const {
  return _document.GetIntOrDefault(GroupOf(resource), kTotalAvailable, kDefaultTotal);
}

int ResourceFigures::GetUsed(const std::string& consumer, const std::string& resource) const {
  return _document.GetIntOrDefault(GroupOf(consumer, resource), kCurrentlyUsed, 0);
}

long long ResourceFigures::GetUsedByAll(const std::string& resource) const {
  long long used = 0;
  for (const std::string& consumer : FindBookers(resource)) used += GetUsed(consumer, resource);
  return used;
}

std::optional<int> ResourceFigures::GetMaxAllowed(const std::string& consumer, const std::string& resource) const {
  int max = 0;
  const std::string& text = _document.GetValueOrDefault(GroupOf(consumer, resource), kMaxAllowed);
  return core::StringUtil::TryParse(text, max) ? std::make_optional(max) : std::nullopt;
}

bool ResourceFigures::IsAuthorized(const std::string& consumer, const std::string& resource) const {
  const std::string group = AllowedGroup(resource);
  if (!_document.HasGroup(group)) return true;
  const IniFile::KeyMap& allowed = _document[group];
  return std::any_of(allowed.begin(), allowed.end(), [&](const auto& entry) { return entry.second == consumer; });
}

int ResourceFigures::GetAvailable(const std::string& consumer, const std::string& resource) const {
  if (!IsAuthorized(consumer, resource)) return 0;
  long long usedByOthers = 0;
  for (const std::string& other : FindBookers(resource)) {
    if (other != consumer) usedByOthers += GetUsed(other, resource);
  }
  const int available = Saturated(GetTotal(resource) - usedByOthers);
  return std::min(available, GetMaxAllowed(consumer, resource).value_or(available));
}

std::optional<int> ResourceFigures::FindBooking(const std::string& consumer, const std::string& resource,
                                                int amount) const {
  if (amount < 0) return std::nullopt;
  if (amount > 0 && amount > GetAvailable(consumer, resource)) return std::nullopt;
  return amount;
}

std::optional<int> ResourceFigures::FindBookingOfShare(const std::string& consumer, const std::string& resource,
                                                       double share) const {
  const double rounded = std::ceil(share);
  if (!std::isfinite(share) || std::fabs(rounded) > std::numeric_limits<int>::max()) return std::nullopt;
  const int available = GetAvailable(consumer, resource);
  const bool missesByRounding = rounded > available && rounded != 0 && share <= available + kRoundingMiss;
  return FindBooking(consumer, resource, missesByRounding ? available : static_cast<int>(rounded));
}

bool BookingAttempts::IsRefusedAfter(const IniFile& figures) {
  const bool isSame = _refusals > 0 && figures.ContainsSettings(_figures) && _figures.ContainsSettings(figures);
  if (!isSame) _figures = figures;
  _refusals = isSame ? _refusals + 1 : 1;
  return _refusals >= kMaxRefusals;
}

// The consumers that have a group.
std::set<std::string> ResourceFigures::FindBookers(const std::string& resource) const {
  return FindNames(_document, ConsumersPrefix(resource));
}

}  // namespace tavix::settings
