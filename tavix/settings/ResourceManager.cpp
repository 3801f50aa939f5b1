#include "tavix/settings/ResourceManager.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>

#include "tavix/core/IniFile.h"
#include "tavix/core/StringUtil.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::settings {

using core::IniFile;

namespace {

constexpr char kTotalAvailable[] = "TotalAvailable";
constexpr char kCurrentlyUsed[] = "CurrentlyUsed";
constexpr char kMaxAllowed[] = "MaxAllowed";
constexpr int kDefaultTotal = 100;
constexpr double kRoundingMiss = 0.01;

std::string ResourceGroup(const std::string& resource) {
  return "Resources/" + resource;
}

std::string ConsumersPrefix(const std::string& resource) {
  return ResourceGroup(resource) + "/Consumers/";
}

std::string ConsumerGroup(const std::string& consumer, const std::string& resource) {
  return ConsumersPrefix(resource) + consumer;
}

int Saturated(int64_t value) {
  constexpr int64_t kLowest = std::numeric_limits<int>::min();
  constexpr int64_t kHighest = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp(value, kLowest, kHighest));
}

}  // namespace

class ResourceManager::ResourceManagerImpl {
 public:
  explicit ResourceManagerImpl(TavixSettingsClient* client) : _client(client) {}

  void Refresh() {
    _cache.Clear();
    for (const std::string& resource : _known) Read(resource);
  }

  int GetTotal(const std::string& resource) {
    EnsureKnown(resource);
    return _cache.GetIntOrDefault(ResourceGroup(resource), kTotalAvailable, kDefaultTotal);
  }

  int GetUsed(const std::string& consumer, const std::string& resource) {
    EnsureKnown(resource);
    return _cache.GetIntOrDefault(ConsumerGroup(consumer, resource), kCurrentlyUsed, 0);
  }

  bool IsAuthorized(const std::string& consumer, const std::string& resource) {
    EnsureKnown(resource);
    const std::string group = ResourceGroup(resource) + "/AllowedConsumers";
    if (!_cache.HasGroup(group)) return true;
    const IniFile::KeyMap& allowed = static_cast<const IniFile&>(_cache)[group];
    return std::any_of(allowed.begin(), allowed.end(), [&](const auto& entry) { return entry.second == consumer; });
  }

  int GetAvailable(const std::string& consumer, const std::string& resource) {
    if (!IsAuthorized(consumer, resource)) return 0;
    int64_t used = 0;
    for (const std::string& other : FindConsumers(resource)) {
      if (other != consumer) used += GetUsed(other, resource);
    }
    const int available = Saturated(GetTotal(resource) - used);
    return std::min(available, _cache.GetIntOrDefault(ConsumerGroup(consumer, resource), kMaxAllowed, available));
  }

  bool Reserve(const std::string& consumer, const std::list<ResourceUsage>& usages) {
    while (true) {
      IniFile proposal;
      for (const ResourceUsage& usage : usages) {
        const std::optional<int> amount = FindAmount(consumer, usage);
        if (!amount) return false;
        proposal.SetInt(ConsumerGroup(consumer, usage.resource), kCurrentlyUsed, *amount);
      }
      if (_client->TestAndMerge(_cache, proposal)) {
        _cache.MergeSettings(std::move(proposal));
        return true;
      }
      Refresh();  // somebody else was first: work it out again from the new figures
    }
  }

 private:
  void EnsureKnown(const std::string& resource) {
    if (_known.count(resource) != 0) return;
    Read(resource);
    _known.insert(resource);
  }

  void Read(const std::string& resource) {
    if (!_client->GetSettings(ResourceGroup(resource) + "*", _cache))
      throw osa::Exception("The figures of resource '%s' could not be read", resource.c_str());
  }

  // A set: "a" and its sub-group "a/x" need not be neighbours, "a-b" sorts between them.
  std::set<std::string> FindConsumers(const std::string& resource) const {
    const std::string prefix = ConsumersPrefix(resource);
    std::set<std::string> consumers;
    const IniFile::GroupMap& groups = _cache.GetGroups();
    for (auto at = groups.lower_bound(prefix); at != groups.end(); ++at) {
      if (!core::StringUtil::StartsWith(at->first, prefix)) break;
      consumers.insert(at->first.substr(prefix.size(), at->first.find('/', prefix.size()) - prefix.size()));
    }
    return consumers;
  }

  // What is to be booked; nothing when it does not fit.
  std::optional<int> FindAmount(const std::string& consumer, const ResourceUsage& usage) {
    const int available = GetAvailable(consumer, usage.resource);
    const std::optional<int> amount = usage.isPercent ? FindShare(usage, available) : usage.amount;
    if (!amount || *amount < 0) return std::nullopt;
    if (*amount > 0 && *amount > available) return std::nullopt;
    return amount;
  }

  std::optional<int> FindShare(const ResourceUsage& usage, int available) {
    const double share = usage.fraction * GetTotal(usage.resource);
    const double amount = std::ceil(share);
    if (!std::isfinite(share) || std::fabs(amount) > std::numeric_limits<int>::max()) return std::nullopt;
    if (amount <= available || amount == 0) return static_cast<int>(amount);
    if (share <= available + kRoundingMiss) return available;
    return std::nullopt;
  }

  TavixSettingsClient* const _client;
  IniFile _cache;                // what was last read of the known resources
  std::set<std::string> _known;  // resources that were read at least once
};

ResourceManager::ResourceManager(TavixSettingsClient* client) : _pImpl(std::make_unique<ResourceManagerImpl>(client)) {}

ResourceManager::~ResourceManager() = default;

void ResourceManager::Refresh() {
  _pImpl->Refresh();
}

int ResourceManager::GetTotal(const std::string& resource) const {
  return _pImpl->GetTotal(resource);
}

int ResourceManager::GetUsed(const std::string& consumer, const std::string& resource) const {
  return _pImpl->GetUsed(consumer, resource);
}

int ResourceManager::GetAvailable(const std::string& consumer, const std::string& resource) const {
  return _pImpl->GetAvailable(consumer, resource);
}

double ResourceManager::GetAvailablePercent(const std::string& consumer, const std::string& resource) const {
  return static_cast<double>(GetAvailable(consumer, resource)) / GetTotal(resource);
}

bool ResourceManager::IsAuthorized(const std::string& consumer, const std::string& resource) const {
  return _pImpl->IsAuthorized(consumer, resource);
}

bool ResourceManager::ReserveForConsumer(const std::string& consumer, const std::list<ResourceUsage>& usages) {
  return _pImpl->Reserve(consumer, usages);
}

}  // namespace tavix::settings
