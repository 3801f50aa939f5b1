#pragma once

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/Amendment.h"

namespace tavix::bridge {

// The daemon can't be asked at the moment: whoever owns the connection makes a new one and reads again. A plain value.
class LocalLost : public osa::Exception {
 public:
  explicit LocalLost(const std::string& reason) : Exception(reason) {}
};

// The store of the device. All calls go over the connection that is subscribed, so that what a read returns holds every
// change whose notice came before, and a change's own notice comes before its reply.
//
// Threads: one.
// Errors:  LocalLost.
class ILocalStore {
 public:
  virtual ~ILocalStore() = default;

  // Whether single keys can be removed. An older daemon can't do that.
  virtual bool CanRemove() const = 0;

  // The groups that names and patterns mean, as readers see them.
  virtual core::IniFile Read(const std::set<std::string>& namesAndPatterns) = 0;

  // Of these groups what the user's layer holds. Costs as much as all of that layer.
  virtual core::IniFile ReadUsers(const std::set<std::string>& groups) = 0;

  // Returns whether it was done: not, when a condition does not hold, or the store refuses the change. Without
  // CanRemove it removes nothing and checks the values that are present alone.
  [[nodiscard]] virtual bool Amend(const settings::Amendment& amendment) = 0;
};

}  // namespace tavix::bridge
