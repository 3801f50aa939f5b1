#ifdef TAVIX_HAS_ETCD

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "tests/programs/bridge/process/SharingDevices.h"
#include "tests/support/RunLength.h"
#include "tests/support/Seeds.h"

namespace tavix::test {

namespace {

constexpr std::size_t kMembers = 3;
constexpr unsigned int kKeys = 3;

// Random writes and removals on two devices, with partitions, and with bridges, daemons and members that are killed at
// any moment. Each value is written once, so that it is known what became of it.
class RandomProcesses : private SharingDevices {
 public:
  RandomProcesses(unsigned int seed, const std::string& winner)
      : SharingDevices(kMembers, "winner=" + winner + "\n"), _random(seed) {}

  void Live() {
    for (int i = 0; i < 80; ++i) {
      SharingDevice& device = Pick(2) == 0 ? one : two;
      if (Pick(3) == 0) {
        Disturb(device);
      } else {
        Write(device);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(Pick(40)));  // so much of it happens, too
    }
  }

  void Calm() {
    for (SharingDevice* device : {&one, &two}) {
      device->SetLinks(TcpProxy::Mode::kPass);
      StartBridge(*device);
    }
    RestartMember();
    _end = AwaitAlike();
  }

  void ExpectSilence() const {
    std::this_thread::sleep_for(std::chrono::seconds(5));  // what is to be proved has no event
    EXPECT_EQ(ReadCluster().revision, _end.revision);
  }

  // Each value stands there, was replaced by one that knew it, or was reported as lost.
  void ExpectNothingLost() {
    for (const auto& [group, keys] : _end.groups) {
      for (const auto& [key, value] : keys) Account(value);
    }
    for (const std::string& value : _removed) Account(value);
    const std::string log = _log + one.bridge->process->GetErrors() + two.bridge->process->GetErrors();
    const std::regex lost("'(v[0-9]+)' is lost");
    for (std::sregex_iterator line(log.begin(), log.end(), lost), end; line != end; ++line) Account((*line)[1]);
    for (const auto& [value, replaced] : _replaced)
      EXPECT_EQ(_accounted.count(value), 1u) << value << " is lost, and nobody reported it\n" << log;
  }

 private:
  unsigned int Pick(unsigned int count) { return static_cast<unsigned int>(_random() % count); }

  // As one step with what the writer saw.
  void Write(SharingDevice& device) {
    while (!TryWrite(device)) continue;
  }

  bool TryWrite(SharingDevice& device) {
    const std::string group = "Net/" + std::to_string(Pick(4));
    const std::string key = "k" + std::to_string(Pick(kKeys));
    const core::IniFile seen = device.daemon.Read(group);
    const std::string before = seen.HasValue(group, key) ? seen.GetValue(group, key) : "";
    settings::Amendment change;
    for (unsigned int i = 0; i < kKeys; ++i) {
      const std::string other = "k" + std::to_string(i);
      if (!seen.HasValue(group, other)) change.absent.SetValue(group, other, "");
    }
    if (!seen.IsEmpty()) change.present = seen;
    const unsigned int kind = Pick(20);
    if (kind == 0) {
      change.replace[group];
    } else if (kind < 5) {
      change.unset.SetValue(group, key, "");
    } else {
      change.set.SetValue(group, key, "v" + std::to_string(_writes + 1));
    }
    if (!device.daemon.Amend(change)) return false;
    if (kind >= 5) _replaced["v" + std::to_string(++_writes)] = before;
    if (kind == 0) {
      for (const auto& [name, value] : seen.GetGroups().count(group) != 0 ? seen[group] : bridge::Keys())
        _removed.insert(value);
    }
    if (kind > 0 && kind < 5 && !before.empty()) _removed.insert(before);
    return true;
  }

  void Disturb(SharingDevice& device) {
    switch (Pick(9)) {
      case 0:
        device.SetLinks(TcpProxy::Mode::kRefuse);
        break;
      case 1:
        device.SetLinks(TcpProxy::Mode::kStall);
        break;
      case 2:
      case 3:
        device.SetLinks(TcpProxy::Mode::kPass);
        break;
      case 4:
        KillBridge(device);
        break;
      case 5:
        StartBridge(device);
        break;
      case 6:
        device.daemon.process->Stop(SIGKILL);
        device.daemon.Start();
        break;
      case 7:
        KillMember();
        break;
      case 8:
        RestartMember();
        break;
    }
  }

  void KillBridge(SharingDevice& device) {
    if (_killed.insert(&device).second) _log += device.bridge->Kill();
  }
  void StartBridge(SharingDevice& device) {
    if (_killed.erase(&device) != 0) device.bridge->Start();
  }

  // One at a time, so that the others are the majority.
  void KillMember() {
    if (_gone) return;
    _gone = Pick(kMembers);
    cluster.Kill(*_gone);
  }
  void RestartMember() {
    if (_gone) cluster.Restart(*_gone);
    _gone.reset();
  }

  // A value and those that were knowingly replaced on the way to it.
  void Account(const std::string& value) {
    for (std::string at = value; !at.empty() && _accounted.insert(at).second; at = _replaced[at]) continue;
  }

  std::mt19937 _random;
  std::set<SharingDevice*> _killed;  // whose bridges do not run
  std::optional<std::size_t> _gone;  // the member that does not run
  std::string _log;                  // of bridges that were killed
  Content _end;
  std::size_t _writes = 0;
  std::map<std::string, std::string> _replaced;  // by what a writer saw
  std::set<std::string> _removed;
  std::set<std::string> _accounted;
};

class EtcdLife : public testing::TestWithParam<const char*> {};

}  // namespace

TEST_P(EtcdLife, EndsAlikeAndLosesNothingThatIsNotReported) {
  const auto [first, last] = ChooseSeeds(IsLongRun() ? 20 : 1);
  for (unsigned int seed = first; seed <= last; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomProcesses life(seed, GetParam());
    life.Live();
    life.Calm();
    life.ExpectSilence();
    life.ExpectNothingLost();
    ASSERT_FALSE(HasFailure());
  }
}

INSTANTIATE_TEST_SUITE_P(Winners, EtcdLife, testing::Values("centre", "device"),
                         [](const auto& winner) { return std::string(winner.param); });

}  // namespace tavix::test

#endif
