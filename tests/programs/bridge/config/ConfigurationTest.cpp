#include "programs/bridge/config/Configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/bridge/config/PatternLock.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::bridge::Configuration;
using tavix::bridge::ConfigurationError;
using tavix::bridge::Direction;
using tavix::bridge::First;
using tavix::bridge::MapRule;
using tavix::bridge::Milliseconds;
using tavix::bridge::ParseConfiguration;
using tavix::bridge::PatternLock;
using tavix::bridge::ReadConfiguration;
using tavix::bridge::Side;
using tavix::test::TemporaryDirectory;
using testing::ElementsAre;

const std::string kBridge = "[bridge]\nname=cam\n";
const std::string kMqtt = "[mqtt]\nhost=h\nroot=fleet\ndevice=d\n";
const std::string kMap = "[map a]\npattern=Net/*\ndirection=up\n";

std::string FailureOf(const std::string& text) {
  try {
    (void)ParseConfiguration(text, "b.conf");
    return "";
  } catch (const ConfigurationError& error) {
    return error.what();
  }
}

TEST(Configuration, HasDefaultsForWhatIsNotThere) {
  const Configuration configuration = ParseConfiguration(kBridge + kMqtt + kMap, "b.conf");
  EXPECT_EQ(configuration.state, "/var/lib/tavix-settings/bridges/cam.db");
  EXPECT_EQ(configuration.runtime, "/run/tavix-settings/bridges");
  EXPECT_EQ(configuration.limits.maxGroups, 10'000u);
  EXPECT_EQ(configuration.limits.maxPendingBytes, 64u * 1024 * 1024);
  EXPECT_EQ(configuration.maps[0].winner, Side::kCentre);
  EXPECT_EQ(configuration.maps[0].first, First::kCentre);
}

TEST(Configuration, ReadsAllSections) {
  const Configuration configuration = ParseConfiguration(
      "[bridge]\nname=c-1\nserver=unix:/s\nstate=/x\nruntime=/r\nnever=A/*, B\nmask=[*]password\n"
      "[etcd]\nendpoints=https://a:1,https://b:2\nprefix=p\ncredentials=/c\nca=/d\n"
      "[limits]\nmax-groups=5\nreconnect-min=1\nspread=0\n"
      "[map z]\npattern=Z\ndirection=both\nwinner=device\nfirst=refuse\n[map a]\npattern=*\ndirection=down\n",
      "b.conf");
  EXPECT_THAT(configuration.never, ElementsAre("A/*", "B"));
  EXPECT_THAT(configuration.etcd->endpoints, ElementsAre("https://a:1", "https://b:2"));
  EXPECT_EQ(configuration.limits.reconnectMin, Milliseconds(1000));
  EXPECT_EQ(configuration.limits.spread, Milliseconds(0));
  ASSERT_EQ(configuration.maps.size(), 2u);
  EXPECT_EQ(configuration.maps[0].name, "z");  // in the order of the text
  EXPECT_EQ(configuration.maps[0].winner, Side::kDevice);
  EXPECT_EQ(configuration.maps[0].first, First::kRefuse);
  EXPECT_EQ(configuration.maps[1].direction, Direction::kDown);
}

TEST(Configuration, NamesWhatIsWrong) {
  const std::pair<std::string, std::string> cases[] = {
      {kBridge + kMqtt + kMap + "[more]\na=1\n", "b.conf: [more]: the section is unknown"},
      {kBridge + "nam=1\n" + kMqtt + kMap, "b.conf: [bridge]nam: the key is unknown"},
      {kBridge + kMqtt + "tls=no\n" + kMap, "b.conf: [mqtt]tls: the key is unknown"},
      {kBridge + kMqtt + kMap + "prio=1\n", "b.conf: [map a]prio: the key is unknown"},
      {kMqtt + kMap, "b.conf: [bridge]name: a value is missing"},
      {"[bridge]\nname=a/b\n" + kMqtt + kMap,
       "b.conf: [bridge]name: 'a/b' has other bytes than letters, digits and -_."},
      {kBridge + kMap, "b.conf: one of [mqtt] and [etcd] has to be there"},
      {kBridge + kMqtt, "b.conf: a section [map NAME] is missing"},
      {kBridge + kMqtt + "[map a]\npattern=*\n", "b.conf: [map a]direction: a value is missing"},
      {kBridge + kMqtt + "[map a]\npattern=*\ndirection=x\n",
       "b.conf: [map a]direction: 'x' is none of up, down, both"},
      {kBridge + "[mqtt]\nhost=h\nroot=a/#\ndevice=d\n" + kMap,
       "b.conf: [mqtt]root: 'a/#' is no topic to begin others with"},
      {kBridge + "[mqtt]\nhost=h\nroot=a\ndevice=all\n" + kMap,
       "b.conf: [mqtt]device: 'all' has another meaning in topics"},
      {kBridge + kMqtt + kMap + "[limits]\nrate=0\n", "b.conf: [limits]rate: '0' is no number from 1 to 1000000000000"},
      {kBridge + "mask=password\n" + kMqtt + kMap, "b.conf: [bridge]mask: 'password' is no [group]key"}};
  for (const auto& [text, failure] : cases) EXPECT_EQ(FailureOf(text), failure);
}

TEST(Configuration, NamesAFileThatCanNotBeRead) {
  try {
    (void)ReadConfiguration("/nowhere/b.conf");
    FAIL();
  } catch (const ConfigurationError& error) {
    EXPECT_STREQ(error.what(), "Failed to read the configuration '/nowhere/b.conf': No such file or directory");
  }
}

struct PatternLockTest : testing::Test {
  static std::vector<MapRule> Map(const std::string& pattern, Direction direction = Direction::kBoth) {
    return {{"m", pattern, direction}};
  }

  std::string FailureOf(const std::string& name, const std::vector<MapRule>& maps) {
    try {
      PatternLock lock(directory.GetPath(), name, maps);
      return "";
    } catch (const ConfigurationError& error) {
      return error.what();
    }
  }

  TemporaryDirectory directory;
};

TEST_F(PatternLockTest, RefusesAPatternThatOverlapsOneOfAnotherBridge) {
  const PatternLock one(directory.GetPath(), "one", Map("Net/*"));
  EXPECT_EQ(FailureOf("two", Map("*/Eth0", Direction::kDown)),
            "The pattern '*/Eth0' of the bridge 'two' overlaps the pattern 'Net/*' of the bridge 'one'");
  EXPECT_EQ(FailureOf("two", Map("State/*")), "");
}

TEST_F(PatternLockTest, LetsManyBridgesReportAGroup) {
  const PatternLock one(directory.GetPath(), "one", Map("Net/*"));
  EXPECT_EQ(FailureOf("two", Map("*", Direction::kUp)), "");
}

TEST_F(PatternLockTest, RefusesASecondBridgeOfAName) {
  const PatternLock one(directory.GetPath(), "one", Map("Net/*"));
  EXPECT_EQ(FailureOf("one", Map("Other/*")), "A bridge 'one' is running already");
}

TEST_F(PatternLockTest, DoesNotCountABridgeThatHasEnded) {
  { const PatternLock one(directory.GetPath(), "one", Map("Net/*")); }
  directory.Write("bridge-dead.patterns", "[patterns]\n0=Net/*\n");
  EXPECT_EQ(FailureOf("two", Map("Net/*")), "");
}

}  // namespace
