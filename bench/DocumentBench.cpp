// One value or one group of a document in memory: reading, writing, serialising.

#include <string>
#include <utility>
#include <vector>

#include "bench/Addresses.h"
#include "bench/BareMap.h"
#include "bench/Benches.h"
#include "bench/Micro.h"
#include "bench/SampleSettings.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/IniFileSettingsSerializer.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::bench {

namespace {

using core::IniFile;
using settings::common::GroupNameMatcher;

constexpr int kKeys = 10;
constexpr char kModeTwo[] = "mode 2";

// One call for each address.
template <class Operation>
void MeasureEach(Recorder& recorder, const FigureName& name, const std::vector<Address>& addresses,
                 Operation operation) {
  MeasureCall(recorder, name, kNanoseconds, static_cast<double>(addresses.size()), [&] {
    for (const Address& address : addresses) operation(address);
  });
}

void MeasureGetAndSet(Recorder& recorder, const std::string& get, const std::string& set, int groups) {
  const std::vector<Address> addresses = ShuffledAddresses(groups, kKeys);
  const std::string value = ValueText(7, 7);
  IniFile document = SettingsDocument(groups, kKeys);
  const settings::TavixSettingsClient client(settings::TavixSettingsClient::Local, document);
  BareMap bare = recorder.WantsFloor() ? ParseBareMap(SettingsText(groups, kKeys)) : BareMap();

  MeasureEach(recorder, {get, kFloor, "bare map, by reference"}, addresses, [&](const Address& address) {
    benchmark::DoNotOptimize(bare.find(address.group)->second.find(address.key)->second.data());
  });
  MeasureEach(recorder, {get, kOurs, "GetValue"}, addresses, [&](const Address& address) {
    benchmark::DoNotOptimize(document.GetValue(address.group, address.key).data());
  });
  MeasureEach(recorder, {get, kOurs, kModeTwo}, addresses, [&](const Address& address) {
    benchmark::DoNotOptimize(client.GetValue({address.group, address.key}).data());
  });
  MeasureEach(recorder, {set, kFloor, "bare map"}, addresses,
              [&](const Address& address) { bare[address.group][address.key] = value; });
  MeasureEach(recorder, {set, kOurs, "SetValue"}, addresses,
              [&](const Address& address) { document.SetValue(address.group, address.key, value); });
}

void MeasureSerialise(Recorder& recorder, const std::string& item, int groups) {
  const std::vector<Address> addresses = ShuffledAddresses(groups, kKeys);
  const BareMap bare = ParseBareMap(SettingsText(groups, kKeys));
  settings::server::SettingsManager store;
  store.MergeSettings(SettingsDocument(groups, kKeys), settings::server::SettingsManager::kNoPersist);
  const settings::server::IniFileSettingsSerializer serializer;
  std::string text;
  core::StringOstream out;

  MeasureEach(recorder, {item, kFloor, "group of 10, string appended"}, addresses, [&](const Address& address) {
    text.clear();
    AppendBareGroup(address.group, bare.find(address.group)->second, text);
    benchmark::DoNotOptimize(text.data());
  });
  MeasureEach(recorder, {item, kOurs, "WriteGroups"}, addresses, [&](const Address& address) {
    GroupNameMatcher matcher;
    matcher.AddNameOrPattern(address.group);
    out.Reset(4096);
    store.WriteGroups(out, matcher, serializer);
    benchmark::DoNotOptimize(out.GetText().data());
  });
}

}  // namespace

void AddDocumentBenches(Suite& suite) {
  const std::pair<const char*, int> sizes[] = {{"1k", 1000}, {"20k", 20000}};
  for (const auto& [size, sizeInGroups] : sizes) {
    const int groups = sizeInGroups;
    const std::string get = std::string("local-get-") + size;
    const std::string set = std::string("local-set-") + size;
    suite.Add({get, set}, [=](Recorder& recorder) { MeasureGetAndSet(recorder, get, set, groups); });
    suite.Compare({get, kOurs, "GetValue"}, {get, kFloor, "bare map, by reference"});
    suite.Compare({get, kOurs, kModeTwo}, {get, kFloor, "bare map, by reference"});
    suite.Compare({set, kOurs, "SetValue"}, {set, kFloor, "bare map"});
  }
  const std::string item = "serialise-1k";
  suite.Add({item}, [=](Recorder& recorder) { MeasureSerialise(recorder, item, 1000); });
  suite.Compare({item, kOurs, "WriteGroups"}, {item, kFloor, "group of 10, string appended"});
}

}  // namespace tavix::bench
