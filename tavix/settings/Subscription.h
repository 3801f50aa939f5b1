#pragma once

#include <memory>
#include <set>
#include <string>

#include "tavix/settings/IChangeCallback.h"

namespace tavix::settings {

class TavixSettingsClient;

// One object's subscription with a client, which ends when this is destroyed: after that the object is never called
// again, in every mode. What the client knows is a small callback of our own that passes calls on.
//
// Threads: as the client's own operations; destroying it waits for a call that is under way on another thread. From a
//          callback of the same client, too, it may be destroyed: the small callback then stays behind and does
//          nothing, until the next subscription with the client begins or ends.
// Forks:   where the client was left to the parent, destroying it does nothing, and never waits.
class Subscription {
 public:
  // Both are borrowed and outlive the subscription. Subscribes to nothing yet.
  Subscription(TavixSettingsClient* client, IChangeCallback* target);
  ~Subscription();

  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // As TavixSettingsClient::Subscribe, whose exceptions pass through.
  void Subscribe(const std::set<std::string>& groups);

 private:
  class Forwarder;
  class LeftBehind;

  static bool TryDetach(TavixSettingsClient& client, Forwarder& forwarder);

  TavixSettingsClient* const _client;
  std::unique_ptr<Forwarder> _forwarder;
};

}  // namespace tavix::settings
