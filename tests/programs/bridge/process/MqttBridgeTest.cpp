#ifdef TAVIX_HAS_MQTT

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/programs/bridge/control/ControlClient.h"
#include "tests/programs/bridge/process/MirroredDaemon.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/StoppedProcess.h"

// The program with MQTT, between a daemon and a broker.
namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

}  // namespace

TEST_F(MqttBridge, ReportsWhatTheDeviceChanges) {
  daemon.Set("[State/Lens]\nzoom=2\n[Other]\nx=1\n");
  AwaitMessage("reported/State/Lens", "values", {{"zoom", "2"}});
  bridge.AwaitInSync();
  EXPECT_EQ(centre->GetStore().count("fleet/cam/reported/Other"), 0u);
  daemon.Set("[State/Lens]\nzoom=3\nsecret=x\n");
  AwaitMessage("reported/State/Lens", "values", {{"zoom", "3"}, {"secret", {{"masked", true}}}});
}

TEST_F(MqttBridge, IsWokenAFewTimesASecondByADeviceThatChangesAllTheTime) {
  constexpr size_t kChanges = 4000;
  constexpr size_t kRest = 500;  // of messages and the state's syncs
  constexpr std::chrono::milliseconds kBetweenReads{20};
  bridge.AwaitInSync();
  const size_t before = CountWaits(bridge.process->GetId());
  const auto begin = std::chrono::steady_clock::now();
  for (size_t i = 1; i <= kChanges; ++i) daemon.SetVolatile("[State/Level]\nvalue=" + std::to_string(i) + "\n");
  const auto reads = (std::chrono::steady_clock::now() - begin) / kBetweenReads;
  EXPECT_LT(CountWaits(bridge.process->GetId()) - before, kRest + 4 * static_cast<size_t>(reads));
  AwaitMessage("reported/State/Level", "values", {{"value", std::to_string(kChanges)}});
}

TEST_F(MqttBridge, AppliesWhatTheCentreWants) {
  Want(1, {{"Net/Eth0", {{"mtu", "1500"}}}});
  daemon.Await("Net/Eth0", "mtu", "1500");
  AwaitMessage("result/doc", "state", "applied");
  Want(2, {{"Net/Eth0", {{"mtu", std::nullopt}}}});
  daemon.Await("Net/Eth0", "mtu", "");
  AwaitMessage("result/doc", "version", 2);
}

TEST_F(MqttBridge, ShowsHowItIsAndWhatDiffers) {
  Want(1, {{"Net/Eth0", {{"mtu", "1500"}}}});
  daemon.Await("Net/Eth0", "mtu", "1500");
  daemon.Set("[Net/Eth0]\nmtu=9000\n");
  AwaitMessage("result/doc", "state", "overridden");
  const json status = bridge.AwaitInSync();
  EXPECT_EQ(status["name"], "cam");
  EXPECT_EQ(status["engine"], "mqtt");
  EXPECT_EQ(status["link"], "connected");
  EXPECT_EQ(status["daemon"], "connected");
  EXPECT_EQ(status["overridden"], 1);
  EXPECT_EQ(status["waiting"], 0);

  EXPECT_EQ(bridge.Ask("diff"), json::parse(R"({"groups":[{"group":"Net/Eth0",
      "keys":[{"key":"mtu","here":"9000","there":"1500","agreed":"9000"}]}],"more":false})"));
  const json conflicts = bridge.Ask("conflicts")["conflicts"];
  ASSERT_EQ(conflicts.size(), 1u);
  EXPECT_EQ(conflicts[0]["here"], "9000");
  EXPECT_EQ(conflicts[0]["there"], "1500");
  EXPECT_EQ(conflicts[0]["winner"], "device");
  EXPECT_EQ(bridge.Ask("sync accept"), json::parse(R"({"done":true,"groups":0})"));
  EXPECT_EQ(bridge.Ask("sync from=centre"), json::parse(R"({"done":true,"groups":0})"));
  EXPECT_EQ(bridge.Ask("sync from=nobody"), json::parse(R"({"error":"the request is unknown"})"));
}

TEST_F(MqttBridge, GoesOnBehindAKill) {
  daemon.Set("[State/Lens]\nzoom=2\n");
  AwaitMessage("reported/State/Lens", "version", 1);
  bridge.AwaitInSync();
  ASSERT_EQ(bridge.process->Stop(SIGKILL), 128 + SIGKILL);
  AwaitMessage("status", "online", false);
  daemon.Set("[State/Lens]\nzoom=3\n");
  Want(1, {{"Net/Eth0", {{"mtu", "1500"}}}});
  bridge.Start();
  AwaitMessage("reported/State/Lens", "values", {{"zoom", "3"}});
  daemon.Await("Net/Eth0", "mtu", "1500");
  bridge.AwaitInSync();
}

TEST_F(MqttBridge, GoesOnBehindARestartOfTheDaemon) {
  daemon.Set("[State/Lens]\nzoom=2\n");
  AwaitMessage("reported/State/Lens", "version", 1);
  ASSERT_EQ(daemon.process->Stop(), 0);
  bridge.AwaitStatus([](const json& status) { return status["daemon"] == "lost"; });
  daemon.Start();
  daemon.Set("[State/Lens]\nzoom=3\n");
  AwaitMessage("reported/State/Lens", "values", {{"zoom", "3"}});
}

TEST_F(MqttBridge, ReportsALostBrokerAndComesBack) {
  bridge.AwaitInSync();
  broker.Kill();
  const json status = bridge.AwaitStatus([](const json& now) { return now["link"] == "lost"; });
  EXPECT_THAT(status["lastError"].get<std::string>(), HasSubstr("There is no link: "));
  EXPECT_GT(status["lastErrorTime"], 0);
  broker.Restart();
  bridge.AwaitInSync();
}

TEST_F(MqttBridge, AnswersOthersWhileAClientStandsStill) {
  bridge.AwaitInSync();
  const ControlClient silent(bridge.GetSocketPath());
  silent.Send("stat");
  daemon.Set("[State/Lens]\nzoom=2\n");
  AwaitMessage("reported/State/Lens", "version", 1);
  bridge.AwaitInSync();
  EXPECT_EQ(silent.ReadToEnd(), "");
}

TEST_F(MqttBridge, KeepsTheLinkWhileTheDaemonStandsStill) {
  bridge.AwaitInSync();
  StopProcess(daemon.process->GetId());
  Want(1, {{"Net/Eth0", {{"mtu", "1500"}}}});
  const json status = bridge.AwaitStatus([](const json& now) { return now["daemon"] == "lost"; });
  EXPECT_EQ(status["link"], "connected");
  daemon.process->Signal(SIGCONT);
  daemon.Await("Net/Eth0", "mtu", "1500");
}

TEST_F(MqttBridge, SaysGoodbyeWhenItEnds) {
  bridge.AwaitInSync();
  EXPECT_EQ(bridge.process->Stop(SIGTERM), 0);
  AwaitMessage("status", "online", false);
  EXPECT_FALSE(directory.Has("bridge-cam.sock"));
}

}  // namespace tavix::test

#endif
