#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/bridge/core/GroupDifference.h"
#include "tests/programs/bridge/core/MirroredDevice.h"
#include "tests/programs/bridge/core/SharedDevices.h"

// What a person is shown of groups that differ.
namespace tavix::test {

namespace {

using bridge::Direction;
using bridge::GroupDifference;
using bridge::KeyDifference;
using testing::ElementsAre;
using testing::IsEmpty;

// "[group]key: here, there, agreed" of each, with "-" for what is not there.
std::vector<std::string> DifferencesOf(bridge::Mirror& mirror, size_t max = 100) {
  std::vector<std::string> lines;
  const auto text = [](const std::optional<std::string>& value) { return value.value_or("-"); };
  mirror.FindDifferences([&](const GroupDifference& difference) {
    const std::string group = "[" + difference.group + "]";
    if (difference.keys.empty()) lines.push_back(group);
    for (const KeyDifference& key : difference.keys) {
      lines.push_back(group + key.key + ": " + text(key.here) + ", " + text(key.there) + ", " + text(key.agreed));
    }
    return lines.size() < max;
  });
  return lines;
}

using SharedDifferences = SharedDevicesTest;
using MirroredDifferences = MirroredDeviceTest;

}  // namespace

TEST_F(SharedDifferences, AreWhatTheDeviceChangedWithoutALink) {
  const auto device = StartDevice("one", Both());
  device->store.Set("Net/Eth0", "mtu", "1400");
  device->store.Set("Net/Eth0", "name", "a");
  device->store.Set("Net/Eth1", "mtu", "1400");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(DifferencesOf(*device->mirror), IsEmpty());

  broker.Cut("one");
  device->store.Set("Net/Eth0", "mtu", "9000");
  device->store.Unset("Net/Eth0", "name");
  device->store.Set("Net/Eth0", "secret", "hidden");
  device->store.Set("Net/Eth2", "mtu", "1");
  for (int i = 0; i < 20; ++i) simulation.Step();
  EXPECT_THAT(DifferencesOf(*device->mirror),
              ElementsAre("[Net/Eth0]mtu: 9000, 1400, 1400", "[Net/Eth0]name: -, a, a", "[Net/Eth2]mtu: 1, -, -"));
  EXPECT_THAT(DifferencesOf(*device->mirror, 1),
              ElementsAre("[Net/Eth0]mtu: 9000, 1400, 1400", "[Net/Eth0]name: -, a, a"));
}

TEST_F(MirroredDifferences, AreWhatTheCentreWantsAndTheDeviceKeptAndWhatIsToBeReported) {
  const auto device = StartDevice(Ruled(Direction::kBoth, bridge::Side::kDevice));
  Publish("cam/desired/network", 1, {{"Net/Eth0", {{"mtu", "1500"}, {"name", "a"}, {"gone", std::nullopt}}}});
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(DifferencesOf(*device->mirror), IsEmpty());

  device->store.Set("Net/Eth0", "mtu", "9000");
  ASSERT_TRUE(simulation.RunUntilInSync());
  EXPECT_THAT(DifferencesOf(*device->mirror), ElementsAre("[Net/Eth0]mtu: 9000, 1500, 9000"));

  broker.Cut("camera");
  device->store.Set("State/Lens", "zoom", "2");
  for (int i = 0; i < 20; ++i) simulation.Step();
  EXPECT_THAT(DifferencesOf(*device->mirror), ElementsAre("[Net/Eth0]mtu: 9000, 1500, 9000", "[State/Lens]"));
}

}  // namespace tavix::test
