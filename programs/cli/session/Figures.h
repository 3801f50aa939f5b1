#pragma once

#include <optional>
#include <set>
#include <string>
#include <utility>

#include "programs/cli/session/Session.h"
#include "tavix/core/IniFile.h"

namespace tavix::cli {

// The figures of shared resources as they were when they were read, and the rules of docs/resources.md over them.
//
// The library's ResourceManager has the same rules on top of its client, which is several times the size of this
// program. A test compares the two.
class Figures {
 public:
  // What "text" asks for: "20", or "20%" of the total.
  struct Amount {
    bool isShare = false;
    int number = 0;
    double percent = 0;  // whose product with the total is exact for whole numbers, as that of 0.14 and 100 is not
  };

  // Throws Failure, kExitUsage, when the text is no amount.
  static Amount ParseAmount(const std::string& text);

  explicit Figures(core::IniFile settings) : _settings(std::move(settings)) {}

  // Those of all resources.
  static Figures Read(Session& session);

  std::set<std::string> GetResources() const;

  // Those that are allowed to use it or have a group, in ascending order.
  std::set<std::string> GetConsumers(const std::string& resource) const;

  int GetTotal(const std::string& resource) const;
  int GetUsed(const std::string& resource, const std::string& consumer) const;
  long long GetUsedByAll(const std::string& resource) const;
  long long GetUsedByOthers(const std::string& resource, const std::string& consumer) const;

  // The most that the consumer may have, if that is limited.
  std::optional<int> GetMost(const std::string& resource, const std::string& consumer) const;

  bool IsAllowed(const std::string& resource, const std::string& consumer) const;

  // What the consumer may hold in all.
  int GetAvailable(const std::string& resource, const std::string& consumer) const;

  // What booking an amount comes to; nothing when it does not fit.
  std::optional<int> FindBooking(const std::string& resource, const std::string& consumer, const Amount& amount) const;

 private:
  static std::optional<int> FindShare(double share, int available);

  const core::IniFile _settings;
};

// Books for a consumer in place of its former booking, again and again until nothing changed in between. Returns what
// was booked; nothing when it does not fit.
std::optional<int> Book(Session& session, const std::string& resource, const std::string& consumer,
                        const Figures::Amount& amount);

}  // namespace tavix::cli
