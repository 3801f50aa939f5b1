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

namespace tavix::bench {

namespace {

constexpr char kItem[] = "dispatch-1-of-1000";
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
  for (const char* variant : {"by name", "by pattern"})
    suite.Compare({kItem, kOurs, variant}, {kItem, kFloor, "1000 sets asked"});
}

}  // namespace tavix::bench
