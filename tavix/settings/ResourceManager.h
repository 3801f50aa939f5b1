#pragma once

#include <list>
#include <memory>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::settings {

class TavixSettingsClient;

// Shares out named resources (bandwidth, processing time, slots) among named consumers. The store is the only place of
// record, and every process applies the same rules:
//
//     [Resources/NAME]                       TotalAvailable   the capacity (100)
//     [Resources/NAME/Consumers/CONSUMER]    CurrentlyUsed    what the consumer has booked (0)
//                                            MaxAllowed       its limit (none)
//     [Resources/NAME/AllowedConsumers]      any keys         whose values are the consumers that may use it
//                                                             (without the group: everybody)
//
// A booking is one test-and-merge: it is made only if everything that it was worked out from still holds; otherwise the
// figures are read again, without limit as long as they change. A booking is refused, with a line in the log at error:
//   - when no figure has changed and the store refuses it all the same, 50 times in a row, because it is full;
//   - when resource or consumer has a restricted name ("Secure" or "Trusted" in it), as no client can write its group;
//   - when the consumer has a '/' in its name, as it would not be counted; releasing it is allowed.
//
// The condition can cover only figures that exist. The very first bookings of consumers that nobody declared can
// therefore race with each other and, together, exceed the total. Declare every consumer in the defaults, with
// CurrentlyUsed=0, and no booking can.
//
// Figures are strings that any client may write: sums saturate, and what is no number is its default.
//
// Threads: one thread at a time; processes and threads each use a manager of their own.
// Owns:    not the client, which outlives it.
// Errors:  what the client throws.
class TAVIX_EXPORT ResourceManager {
 public:
  // One booking that is wanted.
  struct ResourceUsage {
    std::string resource;
    bool isPercent = false;
    int amount = 0;         // where isPercent is false
    double fraction = 0.0;  // where isPercent is true: a share of the total, 0.0 to 1.0
  };

  // Reads nothing. A resource is read when it is first named, and again by Refresh and after a conflict.
  explicit ResourceManager(TavixSettingsClient* client);

  // Bookings stay in the store.
  ~ResourceManager();

  ResourceManager(const ResourceManager&) = delete;
  ResourceManager& operator=(const ResourceManager&) = delete;

  // Reads every resource named so far again.
  void Refresh();

  int GetTotal(const std::string& resource) const;
  int GetUsed(const std::string& consumer, const std::string& resource) const;

  // What the consumer may hold in all: its own booking is not subtracted. 0 for one that is not authorised; negative
  // when others hold more than the total.
  int GetAvailable(const std::string& consumer, const std::string& resource) const;

  // The same as a share of the total: 0.25 is a quarter. A total of 0 makes it infinite or not a number.
  double GetAvailablePercent(const std::string& consumer, const std::string& resource) const;

  bool IsAuthorized(const std::string& consumer, const std::string& resource) const;

  // Books all usages in one step, each in place of the consumer's former booking of that resource. False, with nothing
  // changed, when one is negative or does not fit, or when the booking is refused as said above. A share that misses
  // only by rounding up takes what is left. Booking 0 releases a resource: it always fits.
  [[nodiscard]] bool ReserveForConsumer(const std::string& consumer, const std::list<ResourceUsage>& usages);

 private:
  class TAVIX_LOCAL ResourceManagerImpl;
  std::unique_ptr<ResourceManagerImpl> _pImpl;
};

}  // namespace tavix::settings
