#if defined(TAVIX_HAS_MQTT) && defined(TAVIX_HAS_ETCD)

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

#include "tests/programs/bridge/process/MirroredDaemon.h"
#include "tests/programs/bridge/process/SharingDevices.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RunLength.h"

// Links and daemons that come and go all the time.
namespace tavix::test {

namespace {

constexpr int kWarmUp = 12;  // until a bridge has the memory that it needs for this
constexpr int kDaemonRestart = 8;
constexpr std::size_t kMaxGrowth = std::size_t{2} * 1024 * 1024;
constexpr std::size_t kMaxDescriptors = 4;  // more: of links and questions of this moment

// In a long run an hour, or as many seconds as TAVIX_TEST_FLAPPING gives.
std::chrono::seconds ChooseDuration() {
  const char* const given = std::getenv("TAVIX_TEST_FLAPPING");
  if (given == nullptr) return std::chrono::seconds(IsLongRun() ? 3600 : 0);
  const std::string text = given;
  if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos)
    throw std::runtime_error("TAVIX_TEST_FLAPPING is '" + text + "'; expected seconds");
  return std::chrono::seconds(std::stol(text));
}

// flap: breaks something and returns once all of it works again, given the number of the time.
void ExpectFlatMemory(const BridgeProcess& bridge, const std::function<void(int number)>& flap) {
  int number = 0;
  while (number < kWarmUp) flap(number++);
  const pid_t process = bridge.process->GetId();
  const std::size_t memory = ResidentMemory(process);
  const std::size_t descriptors = CountDescriptors(process);
  const auto end = std::chrono::steady_clock::now() + ChooseDuration();
  while (number < 2 * kWarmUp || std::chrono::steady_clock::now() < end) {
    flap(number++);
    ASSERT_LT(ResidentGrowth(process, memory), kMaxGrowth) << "after " << number << " times";
    ASSERT_LE(CountDescriptors(process), descriptors + kMaxDescriptors) << "after " << number << " times";
  }
  testing::Test::RecordProperty("times", number);
  testing::Test::RecordProperty("growth", static_cast<int>(ResidentGrowth(process, memory)));
}

// Cuts, refuses or stalls the link, each in its turn.
TcpProxy::Mode ChooseMode(int number) {
  constexpr TcpProxy::Mode kModes[] = {TcpProxy::Mode::kPass, TcpProxy::Mode::kRefuse, TcpProxy::Mode::kStall};
  return kModes[number % 3];
}

}  // namespace

TEST(Flapping, LeavesTheMemoryOfABridgeToABrokerFlat) {
  MirroredDaemon device;
  ExpectFlatMemory(device.bridge, [&](int number) {
    device.link.SetMode(ChooseMode(number));
    const std::string value = std::to_string(number);
    device.daemon.Set("[State/A]\nk=" + value + "\n");
    device.link.CutAll();
    device.Want(static_cast<std::uint64_t>(number) + 1, {{"Net/A", {{"k", value}}}});
    if (number % kDaemonRestart == 0) {
      EXPECT_EQ(device.daemon.process->Stop(), 0);
      device.daemon.Start();
    }
    device.link.SetMode(TcpProxy::Mode::kPass);
    device.link.CutAll();
    device.AwaitMessage("reported/State/A", "values", {{"k", value}});
    device.daemon.Await("Net/A", "k", value);
    device.AwaitMessage("result/doc", "version", number + 1);
    device.bridge.AwaitInSync();
  });
}

TEST(Flapping, LeavesTheMemoryOfABridgeToAClusterFlat) {
  SharingDevices devices(1);
  ExpectFlatMemory(*devices.one.bridge, [&](int number) {
    devices.one.SetLinks(ChooseMode(number));
    const std::string value = std::to_string(number);
    devices.one.daemon.Set("[Net/A]\nhere=" + value + "\n");
    devices.one.CutLinks();
    devices.two.daemon.Set("[Net/A]\nthere=" + value + "\n");
    if (number % kDaemonRestart == 0) {
      EXPECT_EQ(devices.one.daemon.process->Stop(), 0);
      devices.one.daemon.Start();
    }
    devices.one.SetLinks(TcpProxy::Mode::kPass);
    devices.one.CutLinks();
    devices.one.daemon.Await("Net/A", "there", value);
    devices.two.daemon.Await("Net/A", "here", value);
    devices.AwaitAlike();
  });
}

}  // namespace tavix::test

#endif
