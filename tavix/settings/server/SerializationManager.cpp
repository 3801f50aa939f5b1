#include "tavix/settings/server/SerializationManager.h"

#include "tavix/settings/server/IniFileSettingsSerializer.h"
#include "tavix/settings/server/PhpArraySettingsSerializer.h"

namespace tavix::settings::server {

SerializationManager::SerializationManager() {
  _serializers.emplace("ini", std::make_unique<IniFileSettingsSerializer>());
  _serializers.emplace("phparray", std::make_unique<PhpArraySettingsSerializer>());
}

const ISettingsSerializer* SerializationManager::GetSerializer(const std::string& name) const {
  const auto found = _serializers.find(name);
  return found == _serializers.end() ? nullptr : found->second.get();
}

}  // namespace tavix::settings::server
