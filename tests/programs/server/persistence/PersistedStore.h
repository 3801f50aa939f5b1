#pragma once

#include <atomic>
#include <chrono>
#include <ctime>
#include <future>
#include <memory>
#include <string>

#include "programs/server/persistence/UserSettingsPersister.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::test {

inline constexpr char kUserFile[] = "user.ini";
inline constexpr daemon::Durability kAlways{daemon::Durability::Kind::kAlways, std::chrono::milliseconds(0)};
inline constexpr daemon::Durability kHourly{daemon::Durability::Kind::kInterval, std::chrono::hours(1)};
inline constexpr daemon::Durability kNever{daemon::Durability::Kind::kNone, std::chrono::milliseconds(0)};

inline constexpr uint64_t kMinJournal = 64 * 1024;  // small, so that a few changes make a journal long
inline constexpr size_t kLargeChange = 64 * 1024;   // less than what makes a journal long

// Output that does nothing but to note when it is let go.
class NotedOutput : public daemon::IHeldOutput {
 public:
  void OnDurable() override { _promise.set_value(); }
  void Await() { _promise.get_future().wait(); }

 private:
  std::promise<void> _promise;
};

inline void AwaitDurable(daemon::DurabilityGate& gate, daemon::DurabilityGate::Ticket ticket) {
  const auto output = std::make_shared<NotedOutput>();
  if (gate.Await(ticket, output)) output->Await();
}

// A store whose user settings are persisted. It ends like a program that crashes: what was not saved is not saved.
class PersistedStore : private daemon::ILayerSources {
 public:
  // files: outlive the store. defaults: settings text. longDiskWork: as UserLayerSetup.
  PersistedStore(daemon::FileSystem& files, daemon::Durability durability, std::string defaults = "",
                 std::chrono::milliseconds longDiskWork = std::chrono::hours(1), size_t historyBytes = 0,
                 daemon::SharedTrials* trials = nullptr)
      : _defaults(std::move(defaults)),
        _persister({files,
                    kUserFile,
                    durability,
                    [](bool, size_t) {},
                    [this](std::time_t since) { _unsavedSince = since; },
                    {},
                    kLargeChange,
                    longDiskWork,
                    {},
                    kMinJournal,
                    historyBytes,
                    trials},
                   *this),
        _manager(&_persister, nullptr, nullptr, false) {
    _persister.Start([this](const auto& reader) { _manager.ReadUserSettings(reader); });
  }

  ~PersistedStore() override { Crash(); }

  settings::server::SettingsManager& GetManager() { return _manager; }
  daemon::UserSettingsPersister& GetPersister() { return _persister; }
  daemon::DurabilityGate& GetGate() { return _persister.GetGate(); }
  const daemon::KeptHistory* GetHistory() const { return _persister.GetHistory(); }
  void LimitEnd(std::chrono::milliseconds limit, daemon::UserSettingsPersister::LateEnd onLate) {
    _persister.LimitEnd(limit, std::move(onLate));
  }
  bool Finish() { return _persister.Finish(); }
  void Crash() { _persister.Stop(); }

  void Merge(const std::string& settings) {
    core::IniFile document;
    document.LoadFromString(settings);
    _manager.MergeSettings(document, 0);
  }

  // In seconds since the epoch; 0: the disk has everything.
  std::time_t GetUnsavedSince() const { return _unsavedSince; }

  // Returns when everything that was changed so far is durable, or released.
  void AwaitDurable() { test::AwaitDurable(GetGate(), GetGate().FindLast(nullptr)); }

 private:
  void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override {
    combiner.LoadFromString(_defaults);
  }

  const std::string _defaults;
  std::atomic<std::time_t> _unsavedSince{0};
  daemon::UserSettingsPersister _persister;
  settings::server::SettingsManager _manager;
};

}  // namespace tavix::test
