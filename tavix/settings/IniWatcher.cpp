#include "tavix/settings/IniWatcher.h"

#include <set>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/LockException.h"
#include "tavix/osa/Mutex.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/PendingChanges.h"
#include "tavix/settings/Subscription.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::settings {

using core::IniFile;
using osa::MutexAutoLock;

class IniWatcher::IniWatcherImpl : public IChangeCallback {
 public:
  IniWatcherImpl(TavixSettingsClient* client, IniFile* target)
      : _logger(core::Logger::GetLogger("IniWatcher")),
        _client(client),
        _mutex(nullptr),
        _target(target),
        _subscription(client, this) {}

  void AddPattern(const std::string& pattern) { _patterns.insert(pattern); }

  bool Update() TAVIX_EXCLUDES(_mutex) {
    if (!_started) return Start();
    MutexAutoLock lock(_mutex);
    return Apply();
  }

  bool TryUpdate() TAVIX_EXCLUDES(_mutex) {
    if (!_started) throw osa::Exception("TryUpdate called before Update");
    try {
      MutexAutoLock lock(_mutex, 0);
      return Apply();
    } catch (const osa::LockException&) {
      return false;
    }
  }

  void OnChange(const std::set<std::string>& groups, const IniFile& settings) override TAVIX_EXCLUDES(_mutex) {
    MutexAutoLock lock(_mutex);
    _pending.Add(groups, settings);
  }

 private:
  bool Start() {
    _target->Clear();
    if (!_client->GetSettings(_patterns, *_target)) throw osa::Exception("The settings to watch could not be read");
    _subscription.Subscribe(_patterns);
    _started = true;
    return true;
  }

  bool Apply() TAVIX_REQUIRES(_mutex) {
    if (_pending.IsEmpty()) return false;
    _logger->Trace("%zu groups changed", _pending.GetGroups().size());
    _pending.ApplyTo(*_target);
    return true;
  }

  core::Logger* const _logger;
  TavixSettingsClient* const _client;
  std::set<std::string> _patterns;
  bool _started = false;
  osa::Mutex _mutex;
  PendingChanges _pending TAVIX_GUARDED_BY(_mutex);
  IniFile* const _target;
  Subscription _subscription;  // ends before anything else goes
};

IniWatcher::IniWatcher(TavixSettingsClient* client, IniFile* targetIni) {
  if (!client) throw osa::Exception("%s was NULL", "client");
  if (!targetIni) throw osa::Exception("%s was NULL", "targetIni");
  _pImpl = std::make_unique<IniWatcherImpl>(client, targetIni);
}

IniWatcher::~IniWatcher() = default;

void IniWatcher::AddPattern(const std::string& pattern) {
  _pImpl->AddPattern(pattern);
}

bool IniWatcher::Update() {
  return _pImpl->Update();
}

bool IniWatcher::TryUpdate() {
  return _pImpl->TryUpdate();
}

}  // namespace tavix::settings
