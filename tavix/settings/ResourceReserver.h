#pragma once

#include <string>

#include "tavix/osa/Export.h"
#include "tavix/settings/ResourceManager.h"

namespace tavix::settings {

class TavixSettingsClient;

// One consumer's share of one resource. The rules are ResourceManager's; every call but IsAuthorized reads the figures
// afresh.
//
// Threads: one thread at a time.
// Owns:    not the client, which outlives it.
// Errors:  what the client throws.
class TAVIX_EXPORT ResourceReserver {
 public:
  // Reads nothing.
  ResourceReserver(TavixSettingsClient* client, const std::string& resource, const std::string& consumer);

  // The booking stays in the store until the consumer books 0 or somebody resets the settings.
  ~ResourceReserver() = default;

  ResourceReserver(const ResourceReserver&) = delete;
  ResourceReserver& operator=(const ResourceReserver&) = delete;

  // Book in place of the former booking: an amount, or a share of the total from 0.0 to 1.0. False, with nothing
  // changed, when it does not fit, is negative or is refused.
  [[nodiscard]] bool TrySetUsage(int amount);
  [[nodiscard]] bool TrySetUsagePercent(double fraction);

  // What the consumer may hold in all, as an amount or as a share.
  int GetAvailableResources() const;
  double GetAvailableResourcesPercent() const;

  int GetCurrentUsage() const;
  int GetTotalResources() const;

  // From the figures that were read last; reads them when there are none.
  bool IsAuthorized() const;

 private:
  mutable ResourceManager _manager;
  const std::string _consumer;
  const std::string _resource;
};

}  // namespace tavix::settings
