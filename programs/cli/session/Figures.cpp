#include "programs/cli/session/Figures.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "programs/cli/session/Writes.h"
#include "programs/cli/text/Failure.h"
#include "programs/cli/text/Spelling.h"
#include "tavix/core/StringUtil.h"

namespace tavix::cli {

using core::IniFile;

namespace {

constexpr char kPrefix[] = "Resources/";
constexpr int kDefaultTotal = 100;
constexpr double kRoundingMiss = 0.01;

std::string GroupOf(const std::string& resource) {
  return kPrefix + resource;
}

std::string GroupOf(const std::string& resource, const std::string& consumer) {
  return GroupOf(resource) + "/Consumers/" + consumer;
}

// The names behind the prefix, each up to its next slash.
std::set<std::string> FindNames(const IniFile& settings, const std::string& prefix) {
  std::set<std::string> names;
  const IniFile::GroupMap& groups = settings.GetGroups();
  for (auto at = groups.lower_bound(prefix); at != groups.end(); ++at) {
    if (!core::StringUtil::StartsWith(at->first, prefix)) break;
    names.insert(at->first.substr(prefix.size(), at->first.find('/', prefix.size()) - prefix.size()));
  }
  return names;
}

int Saturated(long long value) {
  return static_cast<int>(
      std::clamp<long long>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace

Figures::Amount Figures::ParseAmount(const std::string& text) {
  Amount amount;
  if (core::StringUtil::TryParse(text, amount.number)) return amount;
  char* end = nullptr;
  const double percent = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || std::string(end) != "%" || !std::isfinite(percent))
    throw Failure(kExitUsage, "'" + SpellValue(text) +
                                  "' is no amount: expected a whole number, such as 20, or a share "
                                  "of the total, such as 20%");
  amount.isShare = true;
  amount.percent = percent;
  return amount;
}

Figures Figures::Read(Session& session) {
  return Figures(session.Get({std::string(kPrefix) + "*"}));
}

std::set<std::string> Figures::GetResources() const {
  return FindNames(_settings, kPrefix);
}

std::set<std::string> Figures::GetConsumers(const std::string& resource) const {
  std::set<std::string> consumers = FindNames(_settings, GroupOf(resource) + "/Consumers/");
  const std::string allowed = GroupOf(resource) + "/AllowedConsumers";
  if (!_settings.HasGroup(allowed)) return consumers;
  for (const auto& [key, consumer] : _settings[allowed]) consumers.insert(consumer);
  return consumers;
}

int Figures::GetTotal(const std::string& resource) const {
  return _settings.GetIntOrDefault(GroupOf(resource), "TotalAvailable", kDefaultTotal);
}

int Figures::GetUsed(const std::string& resource, const std::string& consumer) const {
  return _settings.GetIntOrDefault(GroupOf(resource, consumer), "CurrentlyUsed", 0);
}

long long Figures::GetUsedByOthers(const std::string& resource, const std::string& consumer) const {
  long long used = 0;
  for (const std::string& other : FindNames(_settings, GroupOf(resource) + "/Consumers/")) {
    if (other != consumer) used += GetUsed(resource, other);
  }
  return used;
}

long long Figures::GetUsedByAll(const std::string& resource) const {
  long long used = 0;
  for (const std::string& consumer : FindNames(_settings, GroupOf(resource) + "/Consumers/"))
    used += GetUsed(resource, consumer);
  return used;
}

std::optional<int> Figures::GetMost(const std::string& resource, const std::string& consumer) const {
  int most = 0;
  const std::string& text = _settings.GetValueOrDefault(GroupOf(resource, consumer), "MaxAllowed");
  return core::StringUtil::TryParse(text, most) ? std::make_optional(most) : std::nullopt;
}

bool Figures::IsAllowed(const std::string& resource, const std::string& consumer) const {
  const std::string group = GroupOf(resource) + "/AllowedConsumers";
  if (!_settings.HasGroup(group)) return true;
  const IniFile::KeyMap& allowed = _settings[group];
  return std::any_of(allowed.begin(), allowed.end(), [&](const auto& entry) { return entry.second == consumer; });
}

int Figures::GetAvailable(const std::string& resource, const std::string& consumer) const {
  if (!IsAllowed(resource, consumer)) return 0;
  const int available = Saturated(GetTotal(resource) - GetUsedByOthers(resource, consumer));
  return std::min(available, GetMost(resource, consumer).value_or(available));
}

std::optional<int> Figures::FindBooking(const std::string& resource, const std::string& consumer,
                                        const Amount& amount) const {
  const int available = GetAvailable(resource, consumer);
  const std::optional<int> booking =
      amount.isShare ? FindShare(amount.percent * GetTotal(resource) / 100, available) : amount.number;
  if (!booking || *booking < 0) return std::nullopt;
  if (*booking > 0 && *booking > available) return std::nullopt;
  return booking;
}

// Rounded up; a share that does not fit only because of that takes what there is.
std::optional<int> Figures::FindShare(double share, int available) {
  const double rounded = std::ceil(share);
  if (!std::isfinite(share) || std::fabs(rounded) > std::numeric_limits<int>::max()) return std::nullopt;
  if (rounded <= available || rounded == 0) return static_cast<int>(rounded);
  if (share <= available + kRoundingMiss) return available;
  return std::nullopt;
}

std::optional<int> Book(Session& session, const std::string& resource, const std::string& consumer,
                        const Figures::Amount& amount) {
  const std::string group = GroupOf(resource, consumer);
  RefuseRestricted(session, {group});
  while (true) {
    const IniFile read = session.Get({GroupOf(resource) + "*"});
    const std::optional<int> booking = Figures(read).FindBooking(resource, consumer, amount);
    if (!booking) return std::nullopt;
    IniFile written;
    written.SetInt(group, "CurrentlyUsed", *booking);
    if (TryMergeIf(session, read, written)) return booking;
  }
}

}  // namespace tavix::cli
