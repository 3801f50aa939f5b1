#include "programs/server/store/SettingsStore.h"

#include <chrono>
#include <ctime>
#include <thread>

#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

constexpr int kMaxStartRetries = 10;
constexpr std::chrono::milliseconds kStartRetryTime{100};

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Trials");
  return logger;
}

constexpr size_t kMaxDeletedPatterns = 1024;  // each is tried on the defaults at each start

// Loads what the sources have, and saves nothing.
class UnsavedLayers : public settings::server::ISettingsPersister {
 public:
  explicit UnsavedLayers(SettingsSources& sources) : _sources(sources) {}

  void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override {
    _sources.LoadDefaultSettings(combiner);
  }
  void LoadUserSettings(settings::server::SettingsCombiner& combiner) override { _sources.LoadUserSettings(combiner); }
  void SaveUserSettings(const core::IniFile&) override {}
  settings::server::ChangeTicket SaveChange(const SavedChange&) override { return 0; }
  bool NeedsWholeUserSettings() const override { return false; }

 private:
  SettingsSources& _sources;
};

bool IsPersisted(const Options& options) {
  return !options.userSettings.empty() && options.action != Options::Action::kCheck;
}

// trials: null when nothing is persisted.
std::unique_ptr<UserSettingsPersister> MakePersister(SettingsSources& sources, const Options& options,
                                                     Counters& counters, SharedTrials* trials) {
  if (!trials) return nullptr;
  const auto count = [&counters](bool succeeded, size_t bytes) {
    if (succeeded) {
      counters.CountSave(bytes);
    } else {
      counters.CountFailedSave();
    }
  };
  const auto noteUnsaved = [&counters](std::time_t since) {
    counters.unsavedSince.Set(static_cast<unsigned long long>(since));
  };
  const auto noteFailure = [&counters](std::string_view reason) { counters.failure.Set(reason); };
  UserLayerSetup setup{GetSystemFiles(), options.userSettings, options.durability, count, noteUnsaved, noteFailure};
  setup.historyBytes = options.historyBytes;
  setup.trials = trials;
  return std::make_unique<UserSettingsPersister>(setup, sources);
}

}  // namespace

SettingsStore::SettingsStore(SettingsSources& sources, const Options& options, Counters& counters)
    : _maxStopTime(options.stopSeconds),
      _maxBytes(options.limits.storeBytes),
      _mayTry(options.trials > 0),
      _sharedTrials(IsPersisted(options) ? std::make_unique<SharedTrials>(options.trials, options.limits.storeBytes)
                                         : nullptr),
      _userSettings(MakePersister(sources, options, counters, _sharedTrials.get())),
      _unsaved(_userSettings ? nullptr : std::make_unique<UnsavedLayers>(sources)),
      _manager(_userSettings ? _userSettings.get() : _unsaved.get(), &sources, nullptr, false),
      _trials(_userSettings ? std::make_unique<StoreTrials>(_manager, *_userSettings, *_sharedTrials) : nullptr) {
  _manager.SetMaxBytes(_maxBytes);
  _manager.SetMaxDeletedPatterns(kMaxDeletedPatterns);
  if (GetHistory()) _checkpoints.emplace(GetSystemFiles(), options.userSettings, options.checkpoints);
  if (_userSettings) _userSettings->Start([this](const auto& reader) { _manager.ReadUserSettings(reader); });
  if (_trials) RevertEarlierTrials();
}

// What a crash or a power cut left pending. It fails for want of memory, or descriptors, which others may give back:
// nothing tells when. Nobody is served yet, so that only the start waits for this thread, and a second at most.
void SettingsStore::RevertEarlierTrials() {
  for (int retry = 0; !_trials->RevertAll(); ++retry) {
    if (retry == kMaxStartRetries) {
      Log()->Error("Clients are served before all trials are reverted: that is tried again each second");
      return;
    }
    std::this_thread::sleep_for(kStartRetryTime);
  }
}

SettingsStore::~SettingsStore() {
  if (_userSettings) _userSettings->Stop();
}

size_t SettingsStore::CountGroups() const {
  return _manager.GetSizes().allGroups;
}

std::string SettingsStore::DescribeFullness() const {
  const size_t bytes = _manager.GetApproximateBytes();
  if (_maxBytes == 0 || bytes <= _maxBytes) return "";
  return "The settings take about " + std::to_string(bytes) + " bytes of memory, more than --max-store " +
         std::to_string(_maxBytes) + ": only changes that do not make them larger are carried out";
}

void SettingsStore::LimitEnd(const std::function<void(bool isSaved)>& onLate) {
  if (_userSettings) _userSettings->LimitEnd(_maxStopTime, onLate);
}

bool SettingsStore::Finish() {
  if (_trials) _trials->RevertAll();
  return !_userSettings || _userSettings->Finish();
}

}  // namespace tavix::daemon
