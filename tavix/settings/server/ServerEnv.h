#pragma once

namespace tavix::settings::server {

class SerializationManager;
class SettingsManager;

// What all connections of a server share. Filled by the hosting program; it and what it points to outlive every
// handler.
struct ServerEnv {
  SettingsManager* settingsManager = nullptr;
  SerializationManager* serializationManager = nullptr;
};

}  // namespace tavix::settings::server
