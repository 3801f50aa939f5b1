#ifdef TAVIX_HAS_MQTT

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>

#include "tests/programs/bridge/process/MirroredDaemon.h"
#include "tests/support/RunLength.h"
#include "tests/support/Seeds.h"

namespace tavix::test {

namespace {

using nlohmann::json;

// Random documents and local changes, with partitions, and with a bridge, a daemon and a broker that are killed at any
// moment. The broker forgets everything then, and the centre writes its document again.
class RandomMirror : private MirroredDaemon {
 public:
  explicit RandomMirror(unsigned int seed)
      : MirroredDaemon(kOpenBroker,
                       "[map state]\npattern=State/*\ndirection=up\n[map net]\npattern=Net/*\ndirection=down\n"),
        _random(seed) {}

  void Live() {
    for (int i = 0; i < 80; ++i) {
      if (Pick(3) == 0) {
        Disturb();
      } else {
        Change("v" + std::to_string(i));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(Pick(40)));  // so much of it happens, too
    }
  }

  void Calm() {
    link.SetMode(TcpProxy::Mode::kPass);
    StartBridge();
    LinkCentre();
    Publish();
    AwaitMessage("result/doc", "version", _version);
    bridge.AwaitInSync();
  }

  void ExpectWanted() {
    EXPECT_EQ(AwaitMessage("result/doc", "version", _version)["state"], "applied");
    for (const auto& [group, keys] : _wanted) {
      for (const auto& [key, value] : keys) EXPECT_EQ(daemon.Get(group, key), value.value_or("")) << group << key;
    }
  }

  // What the device holds, and nothing else.
  void ExpectReported() {
    for (const char* pattern : {"State/*", "Net/*"}) {
      const core::IniFile held = daemon.Read(pattern);
      for (const auto& [group, keys] : held.GetGroups()) AwaitMessage("reported/" + group, "values", json(keys));
    }
    const std::string prefix = "fleet/cam/reported/";
    const LinkedEngine::Store store = centre->GetStore();
    for (const auto& [topic, bytes] : store) {
      if (topic.compare(0, prefix.size(), prefix) != 0) continue;
      const std::string group = topic.substr(prefix.size());
      if (daemon.Read(group).IsEmpty()) AwaitMessage("reported/" + group, "gone", true);
    }
  }

  void ExpectSilence() {
    bridge.AwaitInSync();
    centre->Put("fleet/centre/barrier", std::to_string(_version));
    centre->AwaitValue("fleet/centre/barrier", std::to_string(_version));  // behind all that the broker had
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // what is to be proved has no event
      while (const auto event = centre->GetQueue().TryPop()) {
        const auto* item = std::get_if<bridge::Item>(&*event);
        if (item != nullptr && item->key != "fleet/cam/status") ADD_FAILURE() << item->key << " came";
      }
    }
  }

 private:
  unsigned int Pick(unsigned int count) { return static_cast<unsigned int>(_random() % count); }

  void Publish() { Want(++_version, _wanted); }

  void Change(const std::string& value) {
    const std::string number = std::to_string(Pick(4));
    const std::string key = "k" + std::to_string(Pick(3));
    switch (Pick(8)) {
      case 0:
      case 1:
        daemon.Set("[State/" + number + "]\n" + key + "=" + value + "\n");
        break;
      case 2:
        daemon.Remove("State/" + number);
        break;
      case 3:
        daemon.Set("[Net/" + number + "]\n" + key + "=" + value + "\n");
        break;
      case 4:
        daemon.Remove("Net/" + number);
        break;
      case 5:
        _wanted["Net/" + number][key] = std::nullopt;
        Publish();
        break;
      default:
        _wanted["Net/" + number][key] = value;
        Publish();
        break;
    }
  }

  void Disturb() {
    switch (Pick(8)) {
      case 0:
        link.SetMode(TcpProxy::Mode::kRefuse);
        link.CutAll();
        break;
      case 1:
        link.SetMode(TcpProxy::Mode::kStall);
        break;
      case 2:
      case 3:
        link.SetMode(TcpProxy::Mode::kPass);
        break;
      case 4:
        if (_isBridgeRunning) bridge.Kill();
        _isBridgeRunning = false;
        break;
      case 5:
        StartBridge();
        break;
      case 6:
        daemon.process->Stop(SIGKILL);
        daemon.Start();
        break;
      case 7:
        broker.Restart();
        LinkCentre();
        Publish();
        break;
    }
  }

  void StartBridge() {
    if (!_isBridgeRunning) bridge.Start();
    _isBridgeRunning = true;
  }

  std::mt19937 _random;
  bool _isBridgeRunning = true;
  std::uint64_t _version = 0;
  std::map<std::string, bridge::DesiredKeys> _wanted;
};

}  // namespace

TEST(MqttLife, EndsAsDocumentsAndStoreHaveIt) {
  const auto [first, last] = ChooseSeeds(IsLongRun() ? 40 : 1);
  for (unsigned int seed = first; seed <= last; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomMirror life(seed);
    life.Live();
    life.Calm();
    life.ExpectWanted();
    life.ExpectReported();
    life.ExpectSilence();
    ASSERT_FALSE(HasFailure());
  }
}

}  // namespace tavix::test

#endif
