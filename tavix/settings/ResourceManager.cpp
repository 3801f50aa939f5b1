#include "tavix/settings/ResourceManager.h"

#include <optional>
#include <set>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/ResourceFigures.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::settings {

using core::IniFile;

class ResourceManager::ResourceManagerImpl {
 public:
  explicit ResourceManagerImpl(TavixSettingsClient* client) : _client(client) {}

  // A failure leaves the figures as they were: without them a booking would have no condition.
  void Refresh() {
    IniFile figures;
    for (const std::string& resource : _known) Read(resource, figures);
    _cache = std::move(figures);
  }

  // Of the resource as it was read last; read now when it never was.
  const ResourceFigures& FiguresOf(const std::string& resource) {
    if (_known.count(resource) == 0) {
      IniFile figures;
      Read(resource, figures);
      _cache.MergeSettings(std::move(figures));
      _known.insert(resource);
    }
    return _figures;
  }

  bool Reserve(const std::string& consumer, const std::list<ResourceUsage>& usages) {
    BookingAttempts attempts;
    while (true) {
      IniFile proposal;
      for (const ResourceUsage& usage : usages) {
        const std::optional<int> amount = FindAmount(consumer, usage);
        if (!amount) return false;
        ResourceFigures::SetUsed(consumer, usage.resource, *amount, proposal);
      }
      if (_client->TestAndMerge(_cache, proposal)) {
        _cache.MergeSettings(std::move(proposal));
        return true;
      }
      if (attempts.IsRefusedAfter(_cache)) return LogRefusal(consumer, usages);
      Refresh();  // somebody else was first: work it out again from the new figures
    }
  }

 private:
  void Read(const std::string& resource, IniFile& figures) {
    if (!_client->GetSettings(ResourceFigures::GroupOf(resource) + "*", figures))
      throw osa::Exception("The figures of resource '%s' could not be read", resource.c_str());
  }

  // What is to be booked; nothing when it does not fit, or can't be.
  std::optional<int> FindAmount(const std::string& consumer, const ResourceUsage& usage) {
    if (!CanBeBooked(consumer, usage)) return std::nullopt;
    const ResourceFigures& figures = FiguresOf(usage.resource);
    if (!usage.isPercent) return figures.FindBooking(consumer, usage.resource, usage.amount);
    return figures.FindBookingOfShare(consumer, usage.resource, usage.fraction * figures.GetTotal(usage.resource));
  }

  // Whatever the figures are; logs why not.
  bool CanBeBooked(const std::string& consumer, const ResourceUsage& usage) const {
    const bool isRelease = usage.isPercent ? usage.fraction == 0 : usage.amount == 0;
    const char* obstacle = nullptr;
    if (!ResourceFigures::IsWritable(consumer, usage.resource)) {
      obstacle = "its group is restricted, and no client can write it";
    } else if (!isRelease && !ResourceFigures::IsCounted(consumer)) {
      obstacle = "a booking below a '/' is not counted";
    }
    if (obstacle)
      _logger->Error("Consumer '%s' can't book resource '%s': %s", consumer.c_str(), usage.resource.c_str(), obstacle);
    return !obstacle;
  }

  // False, as the booking is not made.
  bool LogRefusal(const std::string& consumer, const std::list<ResourceUsage>& usages) const {
    std::string resources;
    for (const ResourceUsage& usage : usages) resources += (resources.empty() ? "'" : ", '") + usage.resource + "'";
    _logger->Error("The store refused %d times to book %s for consumer '%s', and no figure had changed: it may be full",
                   BookingAttempts::kMaxRefusals, resources.c_str(), consumer.c_str());
    return false;
  }

  core::Logger* const _logger = core::Logger::GetLogger("ResourceManager");
  TavixSettingsClient* const _client;
  IniFile _cache;  // what was last read of the known resources
  const ResourceFigures _figures{_cache};
  std::set<std::string> _known;  // resources that were read at least once
};

ResourceManager::ResourceManager(TavixSettingsClient* client) : _pImpl(std::make_unique<ResourceManagerImpl>(client)) {}

ResourceManager::~ResourceManager() = default;

void ResourceManager::Refresh() {
  _pImpl->Refresh();
}

int ResourceManager::GetTotal(const std::string& resource) const {
  return _pImpl->FiguresOf(resource).GetTotal(resource);
}

int ResourceManager::GetUsed(const std::string& consumer, const std::string& resource) const {
  return _pImpl->FiguresOf(resource).GetUsed(consumer, resource);
}

int ResourceManager::GetAvailable(const std::string& consumer, const std::string& resource) const {
  return _pImpl->FiguresOf(resource).GetAvailable(consumer, resource);
}

double ResourceManager::GetAvailablePercent(const std::string& consumer, const std::string& resource) const {
  return static_cast<double>(GetAvailable(consumer, resource)) / GetTotal(resource);
}

bool ResourceManager::IsAuthorized(const std::string& consumer, const std::string& resource) const {
  return _pImpl->FiguresOf(resource).IsAuthorized(consumer, resource);
}

bool ResourceManager::ReserveForConsumer(const std::string& consumer, const std::list<ResourceUsage>& usages) {
  return _pImpl->Reserve(consumer, usages);
}

}  // namespace tavix::settings
