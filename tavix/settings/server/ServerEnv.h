#pragma once

#include <cstddef>

namespace tavix::settings::server {

class IExtraCommands;
class IMessageObserver;
class IServerInfo;
class SerializationManager;
class SettingsManager;
class SubscriptionBudget;

// What all connections of a server share. Filled by the hosting program; it and what it points to outlive every
// handler.
//
// Threads: filled before the first handler is made, and not changed afterwards.
struct ServerEnv {
  SettingsManager* settingsManager = nullptr;
  SerializationManager* serializationManager = nullptr;

  // How many names and patterns one connection may subscribe to. 0: no limit. A request that would pass this or
  // another bound of subscriptions subscribes to nothing, with a warning in the log.
  size_t mostSubscriptions = 0;

  // Told of every reply and notice of handlers that write to a plain stream; may be null. Others have an IClientOutput.
  IMessageObserver* messageObserver = nullptr;

  // How many bytes the names and patterns of its subscriptions may have. 0: no limit.
  size_t mostSubscriptionBytes = 0;

  // How many names and patterns a list may hold, and how many of these may be patterns, which cost more: each may have
  // to be tried on every group of the store. A request for more ends the connection. 0: no limit.
  size_t mostListed = 0;
  size_t mostPatterns = 0;

  // How many bytes a group's name, a key, or a line of a list may have; a longer one ends the connection. 0: no limit.
  size_t maxNameBytes = 0;

  // What the subscriptions of all connections together may have; may be null.
  SubscriptionBudget* subscriptionBudget = nullptr;

  // The max work of trying a list's patterns on the groups of the store: the number of the patterns, times the bytes
  // of the names of all groups. A request for more ends the connection. 0: no limit.
  unsigned long long maxMatchingWork = 0;

  // What `info server` answers with; null: nothing.
  const IServerInfo* serverInfo = nullptr;

  // Further requests of one line; null: there are none, and their words are unknown commands.
  IExtraCommands* extraCommands = nullptr;
};

}  // namespace tavix::settings::server
