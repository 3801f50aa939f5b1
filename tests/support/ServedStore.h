#pragma once

#include <string>
#include <vector>

#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/MemoryPersister.h"

namespace tavix::test {

// A store in memory and what connection handlers need beside it.
struct ServedStore {
  explicit ServedStore(std::vector<std::string> defaults = {}, std::string user = "", std::string restricted = "");

  // The bytes that a handler of its own writes when its client sends "input" and hangs up. Throws what Run throws.
  std::string Serve(const std::string& input);

  MemoryPersister persister;
  MemoryRestrictedLoader restrictedLoader;
  settings::server::SettingsManager store;
  settings::server::SerializationManager serializers;
  settings::server::ServerEnv env;
};

}  // namespace tavix::test
