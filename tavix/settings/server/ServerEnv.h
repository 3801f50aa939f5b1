#pragma once

#include <cstddef>

namespace tavix::settings::server {

class IMessageObserver;
class SerializationManager;
class SettingsManager;

// What all connections of a server share. Filled by the hosting program; it and what it points to outlive every
// handler.
struct ServerEnv {
  SettingsManager* settingsManager = nullptr;
  SerializationManager* serializationManager = nullptr;

  // How many names and patterns one connection may subscribe to; a request for more ends the connection. 0: no limit.
  size_t mostSubscriptions = 0;

  // Told of every reply and notice; may be null.
  IMessageObserver* messageObserver = nullptr;

  // How many bytes the names and patterns of its subscriptions may have. 0: no limit.
  size_t mostSubscriptionBytes = 0;

  // How many names and patterns a list may hold, and how many of these may be patterns, which cost more: each may have
  // to be tried on every group of the store. A request for more ends the connection. 0: no limit.
  size_t mostListed = 0;
  size_t mostPatterns = 0;
};

}  // namespace tavix::settings::server
