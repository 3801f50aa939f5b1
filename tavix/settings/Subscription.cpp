#include "tavix/settings/Subscription.h"

#include <exception>
#include <list>
#include <optional>
#include <utility>

#include "tavix/core/Logger.h"
#include "tavix/osa/Mutex.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::settings {

class Subscription::Forwarder : public IChangeCallback {
 public:
  explicit Forwarder(IChangeCallback* target) : _target(target) {}

  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) override
      TAVIX_EXCLUDES(_callMutex) {
    osa::MutexAutoLock lock(_callMutex);
    if (_target) _target->OnChange(changedGroups, settings);
  }

  // The target may end its subscription from its own call, which holds the mutex already: the analysis of locks does
  // not follow that.
  void Forget() TAVIX_NO_THREAD_SAFETY_ANALYSIS {
    std::optional<osa::MutexAutoLock> lock;
    if (!_callMutex.IsHeldByThisThread()) lock.emplace(_callMutex);
    _target = nullptr;
  }

 private:
  osa::Mutex _callMutex{"Subscription::Forwarder"};  // held while the target is called
  IChangeCallback* _target TAVIX_GUARDED_BY(_callMutex);
};

// Small callbacks that a client could not release. They are freed when it can: the client is asked again whenever
// somebody waits for its dispatcher anyway. A client that is gone lets go of all.
class Subscription::LeftBehind {
 public:
  // Never freed, so that subscriptions may end at any time.
  static LeftBehind& Get() {
    static LeftBehind* const leftBehind = new LeftBehind;
    return *leftBehind;
  }

  void Add(TavixSettingsClient* client, std::unique_ptr<Forwarder> forwarder) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    _forwarders.emplace_back(client, std::move(forwarder));
  }

  // The lock is not held while the client is asked: a callback of it may want to add another.
  void FreeThoseOf(TavixSettingsClient* client) TAVIX_EXCLUDES(_mutex) {
    std::list<Entry> mine = TakeThoseOf(client);
    for (auto at = mine.begin(); at != mine.end();) at = TryDetach(*client, *at->second) ? mine.erase(at) : ++at;
    osa::PlainMutexLock lock(_mutex);
    _forwarders.splice(_forwarders.end(), mine);
  }

 private:
  using Entry = std::pair<TavixSettingsClient*, std::unique_ptr<Forwarder>>;

  std::list<Entry> TakeThoseOf(TavixSettingsClient* client) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    std::list<Entry> taken;
    for (auto at = _forwarders.begin(); at != _forwarders.end();) {
      const auto here = at++;
      if (here->first == client) taken.splice(taken.end(), _forwarders, here);
    }
    return taken;
  }

  osa::PlainMutex _mutex;
  std::list<Entry> _forwarders TAVIX_GUARDED_BY(_mutex);
};

// False from a callback of the client: it can't release another one then.
bool Subscription::TryDetach(TavixSettingsClient& client, Forwarder& forwarder) {
  try {
    client.Detach(&forwarder);
    return true;
  } catch (const std::exception& exception) {
    core::Logger::GetLogger("Subscription")->Information("A callback stays subscribed: %s", exception.what());
    return false;
  }
}

Subscription::Subscription(TavixSettingsClient* client, IChangeCallback* target)
    : _client(client), _forwarder(std::make_unique<Forwarder>(target)) {}

// In a process that was forked, the callback's mutex may be held by a thread that is in the parent alone.
Subscription::~Subscription() {
  if (_client->IsLeftToParent()) {
    static_cast<void>(_forwarder.release());
    return;
  }
  _forwarder->Forget();
  if (TryDetach(*_client, *_forwarder)) {
    LeftBehind::Get().FreeThoseOf(_client);
  } else {
    LeftBehind::Get().Add(_client, std::move(_forwarder));
  }
}

void Subscription::Subscribe(const std::set<std::string>& groups) {
  LeftBehind::Get().FreeThoseOf(_client);
  _client->Subscribe(_forwarder.get(), groups);
}

}  // namespace tavix::settings
