#include "programs/server/store/StoreProbe.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "tavix/osa/MutexAutoLock.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using settings::server::SettingsManager;

// A door that is closed at first.
class Door {
 public:
  void Pass() {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return _isOpen; });
  }

  void Open() {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _isOpen = true;
    }
    _changed.notify_all();
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  bool _isOpen = false;
};

// Saves, and calls back, only when the door is opened.
struct Holder : settings::server::ISettingsPersister, settings::IChangeCallback {
  void LoadDefaultSettings(settings::server::SettingsCombiner&) override {}
  void LoadUserSettings(settings::server::SettingsCombiner&) override {}
  void SaveUserSettings(const core::IniFile&) override { door.Pass(); }
  void OnChange(const std::set<std::string>&, const core::IniFile&) override { door.Pass(); }

  Door door;
};

// Whether a probe waits while "change" is stuck at the door, and returns once it is opened.
void ExpectHeldBy(SettingsManager& store, Door& door, unsigned int flags) {
  BackgroundCall change([&] { store.MergeSettings(DocumentOf("[A]\nx=1\n"), flags); });
  change.AwaitBlocked();
  BackgroundCall probe([&] { daemon::ProbeStore(store); });
  probe.AwaitBlocked();
  EXPECT_FALSE(probe.HasEnded());
  door.Open();
  probe.Join();
  change.Join();
}

}  // namespace

TEST(StoreProbe, ReturnsWhenNothingIsHeld) {
  const SettingsManager store;
  daemon::ProbeStore(store);
  daemon::ProbeStore(store);
}

TEST(StoreProbe, WaitsWhileASaveHoldsTheStore) {
  Holder holder;
  SettingsManager store(&holder, nullptr, nullptr, false);
  ExpectHeldBy(store, holder.door, 0);
}

TEST(StoreProbe, WaitsWhileACallbackHoldsTheDispatcher) {
  Holder holder;
  SettingsManager store;
  store.Subscribe(&holder, "A");
  ExpectHeldBy(store, holder.door, SettingsManager::kNoPersist);
  store.Unsubscribe(&holder);
}

TEST(StoreProbe, WaitsForTheNotificationGate) {
  const SettingsManager store;
  std::optional<osa::MutexAutoLock> gate(std::in_place, store.GetNotificationGate());
  BackgroundCall probe([&] { daemon::ProbeStore(store); });
  probe.AwaitBlocked();
  EXPECT_FALSE(probe.HasEnded());
  gate.reset();
  probe.Join();
}

}  // namespace tavix::test
