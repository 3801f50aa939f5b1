#include <gtest/gtest.h>

#include <random>

#include "tests/programs/bridge/core/SharedDevices.h"
#include "tests/support/RunLength.h"

namespace {

using tavix::bridge::Conflict;
using tavix::bridge::Side;
using tavix::test::SimulatedDevice;
using tavix::test::Simulation;

// Random writes and removals on two devices, with partitions, restarts of all kinds, and processes that end between any
// two steps. Each value is written once, so that it is known what became of it.
class RandomLife : public tavix::test::SharedDevicesTest, public testing::WithParamInterface<Side> {
 protected:
  void Write(SimulatedDevice& device) {
    const std::string group = "Net/" + std::to_string(_random() % 4);
    const std::string key = "k" + std::to_string(_random() % 3);
    const auto before = tavix::bridge::FindValue(device.store.Get(group), key);
    if (_random() % 20 == 0) {
      for (const auto& [name, value] : device.store.Get(group)) _superseded.insert(value);
      device.store.Delete(group);
      return;
    }
    if (_random() % 4 == 0) {
      if (before) _superseded.insert(*before);
      device.store.Unset(group, key);
      return;
    }
    const std::string value = "v" + std::to_string(++_writes);
    _replaced[value] = before.value_or("");
    device.store.Set(group, key, value);
  }

  void Disturb(SimulatedDevice& device, const std::string& name) {
    switch (_random() % 14) {
      case 0:
        broker.Cut(name);
        break;
      case 1:
        broker.Heal(name);
        break;
      case 2:
        broker.Stall(name);
        break;
      case 3:
        broker.Resume(name);
        break;
      case 4:
        broker.BreakAfterNextPut(name);
        break;
      case 5:
        broker.Restart();
        break;
      case 6:
        broker.Compact();
        break;
      case 7:
        device.life.EndIn(_random() % 12);
        break;
      case 8:
        if (!device.IsRunning()) device.Start();
        break;
      case 9:
        device.state.isFull = !device.state.isFull;
        break;
      case 10:
        broker.RefusePuts(_random() % 3);
        break;
      case 11:
        device.store.isRefusing = !device.store.isRefusing;
        break;
      case 12:
        if (device.IsRunning()) device.mirror->OnLocalLost();
        if (device.IsRunning()) device.mirror->OnLocalReady();
        break;
      case 13:
        broker.CarryOutLatePuts(name);
        break;
    }
  }

  void Calm(SimulatedDevice& device, const std::string& name) {
    broker.Heal(name);
    broker.Resume(name);
    broker.RefusePuts(0);
    device.life = {};
    device.state.isFull = false;
    device.store.isRefusing = false;
    if (!device.IsRunning()) device.Start();
    device.mirror->CompareAgain();
  }

  // A value and those that were knowingly replaced on the way to it.
  void Account(const std::string& value) {
    for (std::string at = value; !at.empty() && _accounted.insert(at).second; at = _replaced[at]) continue;
  }

  void Account(SimulatedDevice& device) {
    device.Kill();
    for (const Conflict& conflict : device.conflicts) {
      if (conflict.lost) Account(*conflict.lost);
    }
    for (const auto& [group, keys] : device.store.Read({"Net/*"})) {
      for (const auto& [key, value] : keys) Account(value);
    }
  }

  std::mt19937 _random;
  size_t _writes = 0;
  std::map<std::string, std::string> _replaced;  // by what a writer saw
  std::set<std::string> _superseded;             // by removals
  std::set<std::string> _accounted;
};

TEST_P(RandomLife, EndsAlikeAndLosesNothingThatIsNotReported) {
  const unsigned int seeds = tavix::test::IsLongRun() ? 10'000 : 20;
  for (unsigned int seed = 1; seed <= seeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    _random.seed(seed);
    const std::string suffix = std::to_string(seed);
    const auto one = MakeDevice("one" + suffix, Both(GetParam()));
    const auto two = MakeDevice("two" + suffix, Both(GetParam()));
    Simulation life(broker);
    for (const auto& device : {one.get(), two.get()}) {
      life.Add(*device);
      device->Start();
    }
    for (int i = 0; i < 300; ++i) {
      if (_random() % 3 == 0) Write(_random() % 2 == 0 ? *one : *two);
      if (_random() % 12 == 0) Disturb(*one, "one" + suffix);
      if (_random() % 12 == 0) Disturb(*two, "two" + suffix);
      life.Step();
    }
    Calm(*one, "one" + suffix);
    Calm(*two, "two" + suffix);
    ASSERT_TRUE(life.RunUntilInSync());
    ASSERT_EQ(one->store.Read({"Net/*"}).GetGroups(), two->store.Read({"Net/*"}).GetGroups());

    const size_t puts = broker.GetPutCount();
    for (int i = 0; i < 100; ++i) life.Step();
    EXPECT_EQ(broker.GetPutCount(), puts);

    Account(*one);
    Account(*two);
    for (const std::string& value : _superseded) Account(value);
    for (const auto& [value, replaced] : _replaced) {
      ASSERT_EQ(_accounted.count(value), 1u) << value << " is lost, and nobody reported it";
    }
    EXPECT_EQ(one->counted + two->counted, one->conflicts.size() + two->conflicts.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Shared, RandomLife, testing::Values(Side::kCentre, Side::kDevice));

}  // namespace
