#ifdef TAVIX_HAS_ETCD

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/programs/bridge/process/SharingDevices.h"
#include "tests/programs/server/PrometheusText.h"

// Two devices that share groups by a real cluster: much at once, and members and bridges that are away.
namespace tavix::test {

namespace {

using nlohmann::json;

constexpr std::size_t kMembers = 3;

class SharedByOneMember : public testing::Test, protected SharingDevices {
 protected:
  SharedByOneMember() : SharingDevices(1) {}

  // Of a bridge, as of now.
  static double GetFigure(const SharingDevice& device, const std::string& name) {
    const std::string file = "figures.prom";
    std::filesystem::remove(device.place.Path(file));
    device.bridge->process->Signal(SIGUSR1);
    device.bridge->AwaitStatus([&](const json&) { return device.place.Has(file); });
    return PrometheusText(device.place.Read(file)).Get("bridge_" + name + R"({bridge="cam",engine="etcd"})");
  }

  void RestartWithFigures() {
    for (const SharingDevice* device : {&one, &two}) {
      device->bridge->Kill();
      device->bridge->Start({"--metrics-file", "figures.prom"});
    }
    AwaitAlike();
  }
};

class SharedByThreeMembers : public testing::Test, protected SharingDevices {
 protected:
  SharedByThreeMembers() : SharingDevices(kMembers) {}
};

std::string MakeGroups(int count, const std::string& value) {
  std::string text;
  for (int i = 0; i < count; ++i) text += "[Net/" + std::to_string(i) + "]\nk=" + value + "\n";
  return text;
}

}  // namespace

TEST_F(SharedByOneMember, SendOneMessageForAChangeAndNoneForAnEqualValue) {
  one.daemon.Set("[Net/A]\nk=1\n");
  two.daemon.Await("Net/A", "k", "1");
  const bridge::Version before = AwaitAlike().revision;
  one.daemon.Set("[Net/A]\nk=2\n");
  two.daemon.Await("Net/A", "k", "2");
  EXPECT_EQ(AwaitAlike().revision, before + 1);
  one.daemon.Set("[Net/A]\nk=2\n");
  two.daemon.Set("[Net/A]\nk=2\n");
  one.daemon.Set("[Net/B]\nk=1\n");
  two.daemon.Await("Net/B", "k", "1");
  EXPECT_EQ(AwaitAlike().revision, before + 2);
}

TEST_F(SharedByOneMember, DifferInNothingThatBothWroteAtOnce) {
  one.daemon.Set(MakeGroups(500, "one"));
  two.daemon.Set(MakeGroups(500, "two"));
  EXPECT_EQ(AwaitAlike().groups.size(), 500u);
}

TEST_F(SharedByOneMember, SendNoStaleValueOfABurst) {
  RestartWithFigures();
  std::vector<std::string> changes;
  for (int i = 0; i < 20'000; ++i)
    changes.push_back("[Net/" + std::to_string(i % 10) + "]\nk=" + std::to_string(i) + "\n");
  one.daemon.SetInTurn(changes);
  two.daemon.Await("Net/9", "k", "19999");
  const Content content = AwaitAlike();
  EXPECT_EQ(content.groups.at("Net/0").at("k"), "19990");
  EXPECT_EQ(GetFigure(one, "applied_total"), 0);
  EXPECT_GT(GetFigure(one, "sent_total"), 0);
  EXPECT_EQ(GetFigure(two, "sent_total"), 0);
}

TEST_F(SharedByOneMember, LearnOfWhatWasDeletedWhileABridgeWasAway) {
  one.daemon.Set(MakeGroups(4, "1"));
  AwaitAlike();
  two.bridge->Kill();
  one.daemon.Remove("Net/0");
  two.daemon.Remove("Net/1");
  one.daemon.Remove("Net/2");
  two.daemon.Set("[Net/2]\nother=1\n");
  one.bridge->AwaitInSync();
  two.bridge->Start();
  const Groups left = AwaitAlike().groups;
  EXPECT_EQ(left.count("Net/0") + left.count("Net/1"), 0u);
  EXPECT_EQ(left.at("Net/2"), (bridge::Keys{{"other", "1"}}));
  EXPECT_EQ(left.at("Net/3"), (bridge::Keys{{"k", "1"}}));
}

TEST_F(SharedByOneMember, ComeBackFromBeforeACompaction) {
  one.daemon.Set(MakeGroups(3, "1"));
  AwaitAlike();
  two.bridge->Kill();
  one.daemon.Set("[Net/0]\nk=2\n[Net/New]\nk=1\n");
  one.daemon.Remove("Net/1");
  two.daemon.Set("[Net/2]\nk=3\n");
  one.bridge->AwaitInSync();
  cluster.Post("/v3/kv/compaction", json{{"revision", std::to_string(ReadCluster().revision)}}.dump());
  two.bridge->Start();
  EXPECT_EQ(AwaitAlike().groups, (Groups{{"Net/0", {{"k", "2"}}}, {"Net/2", {{"k", "3"}}}, {"Net/New", {{"k", "1"}}}}));
}

TEST_F(SharedByThreeMembers, CatchUpWithAMinorityThatHeals) {
  one.daemon.Set("[Net/A]\nk=1\n");
  two.daemon.Await("Net/A", "k", "1");
  AwaitAlike();
  cluster.Kill(1);
  cluster.Kill(2);
  for (const SharingDevice* device : {&one, &two})
    device->bridge->AwaitStatus([](const json& status) { return status["link"] != "connected"; });
  one.daemon.Set("[Net/A]\nk=2\n");
  two.daemon.Set("[Net/A]\nother=1\n");
  EXPECT_EQ(one.daemon.Get("Net/A", "k"), "2");
  EXPECT_EQ(two.daemon.Get("Net/A", "k"), "1");
  cluster.Restart(1);
  EXPECT_EQ(AwaitAlike().groups, (Groups{{"Net/A", {{"k", "2"}, {"other", "1"}}}}));
}

}  // namespace tavix::test

#endif
