#pragma once

#include "tavix/osa/Export.h"

namespace tavix::settings::server {

class SettingsCombiner;

// The only source of restricted groups. What it loads wins over every other layer, restricted or not.
//
// Threads: called by the thread that loads the store, under the store's write lock.
class TAVIX_EXPORT IRestrictedSettingsLoader {
 public:
  virtual ~IRestrictedSettingsLoader() = default;

  // Loads its sources through "combiner". Exceptions end the store's loading.
  virtual void LoadRestrictedSettings(SettingsCombiner& combiner) = 0;
};

}  // namespace tavix::settings::server
