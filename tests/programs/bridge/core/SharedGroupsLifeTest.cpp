#include <gtest/gtest.h>

#include <random>

#include "tests/programs/bridge/core/SharedDevices.h"
#include "tests/support/RunLength.h"
#include "tests/support/Seeds.h"

namespace {

using tavix::bridge::Conflict;
using tavix::bridge::Side;
using tavix::test::SharedDevices;
using tavix::test::SimulatedDevice;

// Random writes and removals on two devices, with partitions, restarts of all kinds, and processes that end between any
// two steps. Each value is written once, so that it is known what became of it.
class RandomLife : public SharedDevices {
 public:
  RandomLife(unsigned int seed, Side winner)
      : _random(seed), _one(StartDevice("one", Both(winner))), _two(StartDevice("two", Both(winner))) {}

  void Live() {
    for (int i = 0; i < 300; ++i) {
      if (_random() % 3 == 0) Write(_random() % 2 == 0 ? *_one : *_two);
      if (_random() % 12 == 0) Disturb(*_one, "one");
      if (_random() % 12 == 0) Disturb(*_two, "two");
      simulation.Step();
    }
  }

  void Calm() {
    Calm(*_one, "one");
    Calm(*_two, "two");
    ASSERT_TRUE(simulation.RunUntilInSync());
  }

  void ExpectAlike() { EXPECT_EQ(_one->store.Read({"Net/*"}).GetGroups(), _two->store.Read({"Net/*"}).GetGroups()); }

  void ExpectSilence() {
    const size_t puts = broker.GetPutCount();
    for (int i = 0; i < 100; ++i) simulation.Step();
    EXPECT_EQ(broker.GetPutCount(), puts);
  }

  void ExpectNothingLost() {
    Account(*_one);
    Account(*_two);
    for (const std::string& value : _superseded) Account(value);
    for (const auto& [value, replaced] : _replaced) {
      EXPECT_EQ(_accounted.count(value), 1u) << value << " is lost, and nobody reported it";
    }
    EXPECT_EQ(_one->counted + _two->counted, _one->conflicts.size() + _two->conflicts.size());
  }

 private:
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
  const std::unique_ptr<SimulatedDevice> _one;
  const std::unique_ptr<SimulatedDevice> _two;
  size_t _writes = 0;
  std::map<std::string, std::string> _replaced;  // by what a writer saw
  std::set<std::string> _superseded;             // by removals
  std::set<std::string> _accounted;
};

class SharedGroupsLife : public testing::TestWithParam<Side> {};

TEST_P(SharedGroupsLife, EndsAlikeAndLosesNothingThatIsNotReported) {
  const auto [first, last] = tavix::test::ChooseSeeds(tavix::test::IsLongRun() ? 10'000 : 20);
  for (unsigned int seed = first; seed <= last; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomLife life(seed, GetParam());
    life.Live();
    life.Calm();
    life.ExpectAlike();
    life.ExpectSilence();
    life.ExpectNothingLost();
    ASSERT_FALSE(HasFailure());
  }
}

INSTANTIATE_TEST_SUITE_P(Shared, SharedGroupsLife, testing::Values(Side::kCentre, Side::kDevice));

}  // namespace
