#include "programs/cli/Figures.h"

#include <cmath>
#include <cstdlib>

#include "programs/cli/Failure.h"
#include "programs/cli/Writes.h"
#include "tavix/core/StringUtil.h"
#include "tavix/settings/ResourceManager.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::cli {

using core::IniFile;
using settings::ResourceManager;
using settings::TavixSettingsClient;

namespace {

constexpr char kPrefix[] = "Resources/";
constexpr int kDefaultTotal = 100;

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

ResourceManager::ResourceUsage ParseAmount(const std::string& resource, const std::string& amount) {
  ResourceManager::ResourceUsage usage;
  usage.resource = resource;
  if (core::StringUtil::TryParse(amount, usage.amount)) return usage;
  char* end = nullptr;
  const double percent = std::strtod(amount.c_str(), &end);
  if (end == amount.c_str() || std::string(end) != "%" || !std::isfinite(percent))
    throw Failure(kExitUsage, "'" + amount +
                                  "' is no amount: expected a whole number, such as 20, or a share of the "
                                  "total, such as 20%");
  usage.isPercent = true;
  usage.fraction = percent / 100;
  return usage;
}

}  // namespace

Figures::Figures(Session& session) : _settings(session.Get({std::string(kPrefix) + "*"})) {}

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

long long Figures::GetUsedByAll(const std::string& resource) const {
  long long used = 0;
  for (const std::string& consumer : GetConsumers(resource)) used += GetUsed(resource, consumer);
  return used;
}

std::optional<int> Figures::GetMost(const std::string& resource, const std::string& consumer) const {
  int most = 0;
  const std::string& text = _settings.GetValueOrDefault(GroupOf(resource, consumer), "MaxAllowed");
  return core::StringUtil::TryParse(text, most) ? std::make_optional(most) : std::nullopt;
}

// The rules are the library's: its manager books in a store of its own that holds what was just read, and what it
// booked there is written to the real one if all of that still holds.
std::optional<int> Book(Session& session, const std::string& resource, const std::string& consumer,
                        const std::string& amount) {
  const ResourceManager::ResourceUsage usage = ParseAmount(resource, amount);
  const std::string group = GroupOf(resource, consumer);
  RefuseRestricted(session, {group});
  while (true) {
    const IniFile figures = session.Get({GroupOf(resource) + "*"});
    TavixSettingsClient model(TavixSettingsClient::Local, figures);
    ResourceManager manager(&model);
    if (!manager.ReserveForConsumer(consumer, {usage})) return std::nullopt;
    const int booked = manager.GetUsed(consumer, resource);
    IniFile booking;
    booking.SetInt(group, "CurrentlyUsed", booked);
    if (session.TestAndMerge(figures, booking)) return booked;
  }
}

}  // namespace tavix::cli
