// Telling the one subscriber among many that asked for a change.

#include <deque>
#include <set>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Micro.h"
#include "bench/SampleSettings.h"
#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/common/CallbackDispatcher.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::bench {

namespace {

constexpr char kItem[] = "dispatch-1-of-1000";
constexpr char kLone[] = "dispatch-1-of-1";
constexpr char kOneName[] = "one name";
constexpr char kStoreItem[] = "merge-1-of-100k-to-1-of-1000";
constexpr char kOneOfMany[] = "by pattern";
constexpr int kSubscribers = 1000;

class CountingCallback : public settings::IChangeCallback {
 public:
  void OnChange(const std::set<std::string>&, const core::IniFile&) override { ++count; }

  size_t count = 0;
};

// Each subscriber asks for a group of its own, by name or by a pattern.
void MeasureDispatcher(Recorder& recorder, const char* variant, const std::string& suffix) {
  settings::common::CallbackDispatcher dispatcher;
  std::deque<CountingCallback> callbacks(kSubscribers);
  for (int i = 0; i < kSubscribers; ++i)
    dispatcher.AddCallback(&callbacks[static_cast<size_t>(i)], {GroupName(i) + suffix});
  const std::set<std::string> changed{GroupName(kSubscribers / 2)};
  const core::IniFile settings = SettingsDocument(1, 5);
  MeasureCall(recorder, {kItem, kOurs, variant}, kNanoseconds, 1, [&] { dispatcher.OnChange(changed, settings); });
  for (size_t i = 0; i < callbacks.size(); ++i) {
    if ((callbacks[i].count > 0) != (i == kSubscribers / 2)) throw osa::Exception("The wrong subscriber was told");
  }
}

// One subscriber with one name: what most processes are.
void MeasureLoneSubscriber(Recorder& recorder) {
  settings::common::CallbackDispatcher dispatcher;
  CountingCallback callback;
  dispatcher.AddCallback(&callback, std::set<std::string>{GroupName(0)});
  const std::set<std::string> changed{GroupName(0)};
  const core::IniFile settings = SettingsDocument(1, 5);
  MeasureCall(recorder, {kLone, kOurs, kOneName}, kNanoseconds, 1, [&] { dispatcher.OnChange(changed, settings); });
}

// A merge of one group of 100,000, with the subscribers of a whole device.
void MeasureStore(Recorder& recorder) {
  constexpr int kGroups = 100000;
  settings::server::SettingsManager store;
  store.MergeSettings(SettingsDocument(kGroups, 5), settings::server::SettingsManager::kNoPersist);
  std::deque<CountingCallback> callbacks(kSubscribers);
  for (int i = 0; i < kSubscribers; ++i)
    store.Subscribe(&callbacks[static_cast<size_t>(i)], std::set<std::string>{GroupName(i) + "*"});
  core::IniFile change;
  change.SetValue(GroupName(kSubscribers / 2), KeyName(0), "changed");
  MeasureCall(recorder, {kStoreItem, kOurs, kOneOfMany}, kNanoseconds, 1, [&] { store.MergeSettings(change, 0); });
  if (callbacks[kSubscribers / 2].count == 0) throw osa::Exception("The subscriber was not told");
}

void MeasureBareSets(Recorder& recorder) {
  std::vector<std::set<std::string>> wanted;
  for (int i = 0; i < kSubscribers; ++i) wanted.push_back({GroupName(i)});
  const std::string changed = GroupName(kSubscribers / 2);
  MeasureCall(recorder, {kItem, kFloor, "1000 sets asked"}, kNanoseconds, 1, [&] {
    for (const std::set<std::string>& groups : wanted) benchmark::DoNotOptimize(groups.count(changed));
  });
}

}  // namespace

void AddDispatchBenches(Suite& suite) {
  suite.Add({kItem}, [](Recorder& recorder) {
    MeasureBareSets(recorder);
    MeasureDispatcher(recorder, "by name", "");
    MeasureDispatcher(recorder, "by pattern", "*");
  });
  suite.Add({kLone}, MeasureLoneSubscriber);
  suite.Add({kStoreItem}, MeasureStore);
  for (const char* variant : {"by name", "by pattern"})
    suite.Compare({kItem, kOurs, variant}, {kItem, kFloor, "1000 sets asked"});
}

}  // namespace tavix::bench
