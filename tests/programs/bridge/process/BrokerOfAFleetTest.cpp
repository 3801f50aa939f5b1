#ifdef TAVIX_HAS_MQTT

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/programs/bridge/engines/MosquittoBroker.h"
#include "tests/support/MqttConnection.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RunLength.h"
#include "tests/support/TemporaryDirectory.h"

// Many devices at one broker, which they keep as busy as bridges do.
namespace tavix::test {

namespace {

class BrokerOfAFleet : public testing::Test {
 protected:
  static constexpr std::size_t kWave = 100;  // the backlog of the broker's socket

  static std::size_t ChooseCount() { return IsLongRun() ? 10'000 : 200; }

  // The broker inherits the limit.
  static void AllowDescriptors(rlim_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= count) return;
    limit.rlim_cur = std::min(count, limit.rlim_max);
    if (limit.rlim_cur < count || setrlimit(RLIMIT_NOFILE, &limit) != 0)
      throw std::runtime_error("So many devices need " + std::to_string(count) +
                               " descriptors (RLIMIT_NOFILE), of which " + std::to_string(limit.rlim_max) +
                               " are allowed");
  }

  static std::string MakeTopic(std::size_t device, const std::string& topic) {
    return "fleet/device-" + std::to_string(device) + "/" + topic;
  }

  // What a bridge does first, and all of it at once.
  static void Begin(const MqttConnection& connection, std::size_t device) {
    connection.SendConnect("device-" + std::to_string(device), MakeTopic(device, "status"));
    connection.SendSubscribe({MakeTopic(device, "desired/#"), MakeTopic(device, "desired-index"),
                              MakeTopic(device, "index"), "fleet/all/desired/#"});
    connection.SendPublish(MakeTopic(device, "status"), std::string(200, 's'));
  }

  static void AwaitBegun(MqttConnection& connection) {
    connection.AwaitConnected();
    connection.AwaitSubscribed();
    connection.AwaitPublished();
  }

  void ConnectAll(std::size_t count) {
    while (devices.size() < count) {
      const std::size_t begin = devices.size();
      for (std::size_t device = begin; device < std::min(begin + kWave, count); ++device) {
        devices.emplace_back(broker->GetPort());
        Begin(devices.back(), device);
      }
      std::for_each(devices.begin() + static_cast<std::ptrdiff_t>(begin), devices.end(), AwaitBegun);
    }
  }

  // A document for all of them, until each has confirmed it.
  void PublishToAll() {
    MqttConnection centre(broker->GetPort());
    centre.SendConnect("centre", "fleet/centre");
    centre.AwaitConnected();
    const std::string document(500, 'd');
    centre.SendPublish("fleet/all/desired/base", document);
    centre.AwaitPublished();
    for (MqttConnection& device : devices) EXPECT_EQ(device.AwaitMessage(), document);
  }

  // The milliseconds of the broker's processor time for each device.
  double MeasureTime(const std::function<void()>& work) const {
    const double before = ProcessorTime(broker->GetId());
    work();
    return (ProcessorTime(broker->GetId()) - before) * 1000 / static_cast<double>(ChooseCount());
  }

  const TemporaryDirectory folder;
  std::unique_ptr<MosquittoBroker> broker;
  std::vector<MqttConnection> devices;
};

}  // namespace

TEST_F(BrokerOfAFleet, ServesAllDevices) {
  const std::size_t count = ChooseCount();
  AllowDescriptors(count + 100);
  broker = std::make_unique<MosquittoBroker>(folder, "allow_anonymous true\nconnection_messages false\n",
                                             std::vector<std::string>{});
  const std::size_t memory = ResidentMemory(broker->GetId());
  const double connecting = MeasureTime([&] { ConnectAll(count); });
  const double documents = MeasureTime([&] { PublishToAll(); });
  const double each = static_cast<double>(ResidentGrowth(broker->GetId(), memory)) / 1024 / static_cast<double>(count);
  EXPECT_EQ(devices.size(), count);
  std::printf(
      "%zu devices: the broker has %.1f KiB for each, and took %.3f ms of processor time to connect one, %.3f ms "
      "to bring it a document for all\n",
      count, each, connecting, documents);
}

}  // namespace tavix::test

#endif
