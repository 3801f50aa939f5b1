#include "tavix/settings/SyncedDocument.h"

#include <set>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/LockException.h"
#include "tavix/osa/Mutex.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/PendingChanges.h"
#include "tavix/settings/Subscription.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::settings {

using core::IniFile;
using osa::MutexAutoLock;

namespace {

// The first call after a lost connection is the one that is told of the loss.
constexpr int kReadTries = 2;

bool AreEqual(const IniFile& a, const IniFile& b) {
  return a.GetGroups() == b.GetGroups();
}

}  // namespace

class SyncedDocument::Impl : public IChangeCallback, public IConnectionObserver {
 public:
  Impl(TavixSettingsClient* client, IniFile* target)
      : _client(client), _target(target), _mutex(nullptr), _subscription(client, this) {
    _client->AddConnectionObserver(this);
  }

  ~Impl() override { _client->RemoveConnectionObserver(this); }

  void AddPattern(const std::string& pattern) {
    if (!_subscribed) _patterns.insert(pattern);
  }

  bool Update() TAVIX_EXCLUDES(_mutex) {
    if (!_subscribed) {
      _subscription.Subscribe(_patterns);
      _subscribed = true;
    }
    return BringUpToDate(osa::kWaitForever);
  }

  bool TryUpdate() TAVIX_EXCLUDES(_mutex) {
    if (!_filled) throw osa::Exception("TryUpdate called before Update");
    try {
      return BringUpToDate(0);
    } catch (const osa::LockException&) {
      return false;
    }
  }

  void OnChange(const std::set<std::string>& groups, const IniFile& settings) override TAVIX_EXCLUDES(_mutex) {
    MutexAutoLock lock(_mutex);
    if (_mustRead) {
      _changedBeforeReading = true;
    } else {
      _pending.Add(groups, settings);
    }
  }

  // Nobody knows what changed while there was no connection.
  void OnConnected() override TAVIX_EXCLUDES(_mutex) {
    MutexAutoLock lock(_mutex);
    _mustRead = true;
    _changedBeforeReading = true;
  }

 private:
  bool BringUpToDate(unsigned int timeout) TAVIX_EXCLUDES(_mutex) {
    {
      MutexAutoLock lock(_mutex, timeout);
      if (!_mustRead) {
        if (_pending.IsEmpty()) return false;
        _pending.ApplyTo(*_target);
        return true;
      }
    }
    return Reread();
  }

  // A notice that comes while the reply is on its way may be older or newer than it. Once a reading had no such notice,
  // its document is current and all later notices are newer; after some tries under constant change the reading counts,
  // and the next update reads again.
  bool Reread() TAVIX_EXCLUDES(_mutex) {
    IniFile current;
    bool settled = false;
    for (int tries = 0; tries < kSettleTries && !settled; ++tries) {
      MarkReading();
      current.Clear();
      Read(current);
      settled = EndReading();
    }
    const bool changed = !_filled || !AreEqual(*_target, current);
    _target->Clear();
    _target->MergeSettings(std::move(current));
    _filled = true;
    return changed;
  }

  void MarkReading() TAVIX_EXCLUDES(_mutex) {
    MutexAutoLock lock(_mutex);
    _changedBeforeReading = false;
    _pending.Clear();
  }

  // Whether the document that was read is the store's, as of a moment after which every notice is kept.
  bool EndReading() TAVIX_EXCLUDES(_mutex) {
    MutexAutoLock lock(_mutex);
    if (_changedBeforeReading) return false;
    _mustRead = false;
    return true;
  }

  void Read(IniFile& current) const {
    for (int left = kReadTries; left > 0; --left) {
      try {
        if (_client->GetSettings(_patterns, current)) return;
      } catch (const osa::LockException&) {
        throw osa::Exception("No connection to read the settings again");
      } catch (const osa::Exception&) {
        if (left == 1) throw;
      }
    }
    throw osa::Exception("The settings to follow could not be read");
  }

  static constexpr int kSettleTries = 3;

  TavixSettingsClient* const _client;
  IniFile* const _target;
  std::set<std::string> _patterns;
  bool _subscribed = false;
  bool _filled = false;
  osa::Mutex _mutex;
  // The document must be read before notices count.
  bool _mustRead TAVIX_GUARDED_BY(_mutex) = true;
  // A notice, or a new connection, came since the reading began.
  bool _changedBeforeReading TAVIX_GUARDED_BY(_mutex) = false;
  PendingChanges _pending TAVIX_GUARDED_BY(_mutex);
  Subscription _subscription;  // ends before anything else goes
};

SyncedDocument::SyncedDocument(TavixSettingsClient* client, IniFile* target) {
  if (!client) throw osa::Exception("%s was NULL", "client");
  if (!target) throw osa::Exception("%s was NULL", "target");
  _pImpl = std::make_unique<Impl>(client, target);
}

SyncedDocument::~SyncedDocument() = default;

void SyncedDocument::AddPattern(const std::string& pattern) {
  _pImpl->AddPattern(pattern);
}

bool SyncedDocument::Update() {
  return _pImpl->Update();
}

bool SyncedDocument::TryUpdate() {
  return _pImpl->TryUpdate();
}

}  // namespace tavix::settings
