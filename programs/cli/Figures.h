#pragma once

#include <optional>
#include <set>
#include <string>

#include "programs/cli/Session.h"
#include "tavix/core/IniFile.h"

namespace tavix::cli {

// The figures of shared resources, docs/resources.md, as they were when they were read.
class Figures {
 public:
  // Those of all resources.
  explicit Figures(Session& session);

  std::set<std::string> GetResources() const;

  // Those that are allowed to use it or have a group, in ascending order.
  std::set<std::string> GetConsumers(const std::string& resource) const;

  int GetTotal(const std::string& resource) const;
  int GetUsed(const std::string& resource, const std::string& consumer) const;
  long long GetUsedByAll(const std::string& resource) const;

  // The most that the consumer may have, if that is limited.
  std::optional<int> GetMost(const std::string& resource, const std::string& consumer) const;

 private:
  const core::IniFile _settings;
};

// Books for a consumer in place of its former booking, as settings::ResourceManager does: again and again, until
// nothing changed in between. amount: "20", or "20%" of the total. Returns what was booked; nothing when that does not
// fit. Throws Failure, kExitUsage, when the amount is none.
std::optional<int> Book(Session& session, const std::string& resource, const std::string& consumer,
                        const std::string& amount);

}  // namespace tavix::cli
