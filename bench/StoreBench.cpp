// What the store's size adds to reading and changing a few of its groups.

#include <string>
#include <vector>

#include "bench/Addresses.h"
#include "bench/Benches.h"
#include "bench/Micro.h"
#include "bench/SampleSettings.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::bench {

namespace {

using core::IniFile;
using settings::server::SettingsManager;

constexpr int kKeys = 5;
constexpr double kMaxGrowth = 1.5;

// The operations that are measured on a store of each size, their figures' variants being the sizes.
constexpr char kGetName[] = "store-get-name";
constexpr char kGetPrefix[] = "store-get-prefix";
constexpr char kGetAnyName[] = "store-get-any-name";
constexpr char kMerge[] = "store-merge";

std::string Variant(int groups) {
  return std::to_string(groups) + " groups";
}

void MeasureStore(Recorder& recorder, int groups) {
  SettingsManager store;
  store.MergeSettings(SettingsDocument(groups, kKeys), 0);
  const std::string variant = Variant(groups);
  const std::string name = GroupName(groups / 2);
  const std::string ten = name.substr(0, name.size() - 1) + "*";
  MeasureCall(recorder, {kGetName, kOurs, variant}, kNanoseconds, 1, [&] {
    IniFile out;
    store.GetGroups(out, name);
    benchmark::DoNotOptimize(out);
  });
  MeasureCall(recorder, {kGetPrefix, kOurs, variant}, kNanoseconds, 1, [&] {
    IniFile out;
    store.GetGroups(out, ten);
    benchmark::DoNotOptimize(out);
  });

  const std::vector<Address> addresses = ShuffledAddresses(groups, kKeys);
  size_t next = 0;
  MeasureCall(recorder, {kGetAnyName, kOurs, variant}, kNanoseconds, 1, [&] {
    IniFile out;
    store.GetGroups(out, addresses[next++ % addresses.size()].group);
    benchmark::DoNotOptimize(out);
  });

  IniFile change;
  change.SetValue(name, KeyName(0), ValueText(7, 7));
  MeasureCall(recorder, {kMerge, kOurs, variant}, kNanoseconds, 1, [&] { store.MergeSettings(change, 0); });
}

// The same from a bare map: what the processor's caches make of any group of a large store.
void MeasureBareMap(Recorder& recorder, int groups) {
  if (!recorder.WantsFloor()) return;
  const IniFile document = SettingsDocument(groups, kKeys);
  const std::vector<Address> addresses = ShuffledAddresses(groups, kKeys);
  size_t next = 0;
  MeasureCall(recorder, {kGetAnyName, kFloor, "bare map, " + Variant(groups)}, kNanoseconds, 1, [&] {
    const auto group = document.GetGroups().find(addresses[next++ % addresses.size()].group);
    const IniFile::GroupMap out{*group};
    benchmark::DoNotOptimize(&out);
  });
}

}  // namespace

void AddStoreBenches(Suite& suite) {
  const std::string smallest = Variant(100);
  for (int groups : {100, 10000, 100000}) {
    const std::string variant = Variant(groups);
    suite.Add(
        {kGetName, kGetPrefix, kGetAnyName, kMerge}, [=](Recorder& recorder) { MeasureStore(recorder, groups); },
        Suite::Frequency::kFullRuns);
    suite.Add(
        {kGetAnyName}, [=](Recorder& recorder) { MeasureBareMap(recorder, groups); }, Suite::Frequency::kFullRuns);
    suite.Compare({kGetAnyName, kOurs, variant}, {kGetAnyName, kFloor, "bare map, " + variant});
    if (variant == smallest) continue;
    for (const char* item : {kGetName, kGetPrefix, kMerge})
      suite.Compare({item, kOurs, variant}, {item, kOurs, smallest}, kMaxGrowth);
  }
}

}  // namespace tavix::bench
