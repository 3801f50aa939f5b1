#include "tavix/settings/Subscription.h"

#include <exception>
#include <mutex>

#include "tavix/core/Logger.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::settings {

class Subscription::Forwarder : public IChangeCallback {
 public:
  explicit Forwarder(IChangeCallback* target) : _target(target) {}

  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) override {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    if (_target) _target->OnChange(changedGroups, settings);
  }

  void Forget() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    _target = nullptr;
  }

 private:
  std::recursive_mutex _mutex;  // recursive: the target may end its subscription from its own call
  IChangeCallback* _target;     // guarded by _mutex
};

Subscription::Subscription(TavixSettingsClient* client, IChangeCallback* target)
    : _client(client), _forwarder(std::make_unique<Forwarder>(target)) {}

Subscription::~Subscription() {
  _forwarder->Forget();
  try {
    _client->Detach(_forwarder.get());
  } catch (const std::exception& exception) {  // from a callback the client can't let go of it
    core::Logger::GetLogger("Subscription")->Information("A callback stays subscribed: %s", exception.what());
    static_cast<void>(_forwarder.release());
  }
}

void Subscription::Subscribe(const std::set<std::string>& groups) {
  _client->Subscribe(_forwarder.get(), groups);
}

}  // namespace tavix::settings
