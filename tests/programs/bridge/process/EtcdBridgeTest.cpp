#ifdef TAVIX_HAS_ETCD

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "programs/bridge/formats/SharedGroup.h"
#include "tests/programs/bridge/engines/EtcdHost.h"
#include "tests/programs/bridge/engines/LinkedEngine.h"
#include "tests/programs/bridge/process/BridgeProcess.h"

// The program with etcd: two devices that share groups.
namespace tavix::test {

namespace {

using bridge::ComposeSharedGroup;
using nlohmann::json;
using testing::HasSubstr;

class EtcdBridge : public testing::Test {
 protected:
  EtcdBridge() {
    one.Start();
    two.Start();
  }

  std::string MakeSections() const {
    return "[etcd]\nendpoints=http://127.0.0.1:" + std::to_string(cluster.GetPort(0)) + "\nprefix=fleet\n" +
           kQuickLimits + "[map net]\npattern=Net/*\ndirection=both\n";
  }

  TemporaryDirectory directory;
  EtcdCluster cluster{directory, 1};
  BridgedDaemon here{directory, "here"};
  BridgedDaemon there{directory, "there"};
  TemporaryDirectory placeOfOne;
  TemporaryDirectory placeOfTwo;
  BridgeProcess one{TAVIX_BRIDGE_ETCD_PROGRAM, placeOfOne, here.address, MakeSections()};
  BridgeProcess two{TAVIX_BRIDGE_ETCD_PROGRAM, placeOfTwo, there.address, MakeSections()};
};

}  // namespace

TEST_F(EtcdBridge, BringsChangesAndRemovalsBothWays) {
  here.Set("[Net/Eth0]\nmtu=1500\nname=a\n");
  there.Await("Net/Eth0", "mtu", "1500");
  there.Set("[Net/Eth0]\nmtu=9000\n");
  here.Await("Net/Eth0", "mtu", "9000");
  one.AwaitInSync();
  const json status = two.AwaitInSync();
  EXPECT_EQ(status["engine"], "etcd");
  EXPECT_EQ(two.Ask("diff"), json::parse(R"({"groups":[],"more":false})"));
}

TEST_F(EtcdBridge, GoesOnBehindAKill) {
  here.Set("[Net/Eth0]\nmtu=1500\n");
  there.Await("Net/Eth0", "mtu", "1500");
  ASSERT_EQ(two.process->Stop(SIGKILL), 128 + SIGKILL);
  here.Set("[Net/Eth0]\nmtu=1400\n");
  there.Set("[Net/Eth0]\nname=b\n");
  one.AwaitInSync();
  two.Start();
  there.Await("Net/Eth0", "mtu", "1400");
  here.Await("Net/Eth0", "name", "b");
}

TEST_F(EtcdBridge, GoesOnBehindARestartOfTheDaemon) {
  here.Set("[Net/Eth0]\nmtu=1500\n");
  there.Await("Net/Eth0", "mtu", "1500");
  ASSERT_EQ(there.process->Stop(), 0);
  here.Set("[Net/Eth0]\nmtu=1400\n");
  there.Start();
  there.Await("Net/Eth0", "mtu", "1400");
}

TEST_F(EtcdBridge, AsksAPersonWhichSideIsRightFirst) {
  LinkedEngine centre([this](bridge::EventQueue& events) {
    return std::make_unique<bridge::EtcdEngine>(MakeEtcdSettings({cluster.GetPort(0)}), events);
  });
  centre.Connect();
  centre.Put("other/Net/Eth0", ComposeSharedGroup({{"mtu", "9000"}}, {}));
  here.Set("[Net/Eth0]\nmtu=1500\n");
  TemporaryDirectory place;
  BridgeProcess careful(TAVIX_BRIDGE_ETCD_PROGRAM, place, here.address,
                        "[etcd]\nendpoints=http://127.0.0.1:" + std::to_string(cluster.GetPort(0)) +
                            "\nprefix=other\n[map net]\npattern=Net/*\ndirection=both\nfirst=refuse\n");
  careful.Start();
  careful.AwaitStatus([](const json& status) { return status["undecided"] == 1; });
  EXPECT_EQ(here.Get("Net/Eth0", "mtu"), "1500");
  EXPECT_EQ(careful.Ask("sync from=centre"), json::parse(R"({"done":true,"groups":1})"));
  here.Await("Net/Eth0", "mtu", "9000");
}

}  // namespace tavix::test

#endif
