#pragma once

#include <map>
#include <memory>
#include <string>

#include "tavix/osa/Export.h"
#include "tavix/settings/server/ISettingsSerializer.h"

namespace tavix::settings::server {

// The serializers by name: "ini", with which every connection starts, and "phparray".
//
// Threads: any.
class TAVIX_EXPORT SerializationManager {
 public:
  SerializationManager();

  // The serializer of exactly that name, or null. It lives as long as the manager.
  const ISettingsSerializer* GetSerializer(const std::string& name) const;

 private:
  std::map<std::string, std::unique_ptr<ISettingsSerializer>> _serializers;
};

}  // namespace tavix::settings::server
