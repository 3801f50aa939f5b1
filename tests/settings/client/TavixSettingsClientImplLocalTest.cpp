#include "tavix/settings/client/TavixSettingsClientImplLocal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::client::TavixSettingsClientImplLocal;
using tavix::test::Change;
using tavix::test::DocumentOf;
using tavix::test::RecordingCallback;
using tavix::test::TextOf;

std::string AllOf(const TavixSettingsClientImplLocal& client) {
  IniFile all;
  client.GetSettings({"*"}, all);
  return TextOf(all);
}

TEST(TavixSettingsClientImplLocal, IsEmptyWithoutDefaults) {
  const TavixSettingsClientImplLocal client(nullptr);
  IniFile out;
  EXPECT_TRUE(client.GetSettings({"A", "*"}, out));
  EXPECT_TRUE(out.IsEmpty());
}

TEST(TavixSettingsClientImplLocal, ChangesLastAsLongAsTheObject) {
  const IniFile defaults = DocumentOf("[A]\nx=1\n");
  {
    TavixSettingsClientImplLocal client(&defaults);
    client.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
    EXPECT_EQ(AllOf(client), "[A]\nx=2\n");
  }
  EXPECT_EQ(AllOf(TavixSettingsClientImplLocal(&defaults)), "[A]\nx=1\n");
}

// What a restore brings back tells the layers apart: the flag must have reached the store.
TEST(TavixSettingsClientImplLocal, PassesTheMergeFlagsOn) {
  TavixSettingsClientImplLocal client(nullptr);
  client.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  client.MergeSettings(DocumentOf("[B]\nx=1\n"), 1);
  client.RestoreToDefaults({"*"});
  EXPECT_EQ(AllOf(client), "[B]\nx=1\n");
}

TEST(TavixSettingsClientImplLocal, CallbacksRunInsideTheCallThatMadeTheChange) {
  std::thread::id ranOn;
  RecordingCallback callback([&] { ranOn = std::this_thread::get_id(); });
  TavixSettingsClientImplLocal client(nullptr);
  client.Subscribe(&callback, {"Net/*"});
  client.MergeSettings(DocumentOf("[Net/Eth0]\nip=1\n"), 0);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(TavixSettingsClientImplLocal, ASubscriberGetsTheGroupsCurrentContentAndNotTheRequests) {
  const IniFile defaults = DocumentOf("[Net/Eth0]\nmask=24\n[Other]\ny=1\n");
  RecordingCallback callback;
  TavixSettingsClientImplLocal client(&defaults);
  client.Subscribe(&callback, {"Net/*"});
  client.MergeSettings(DocumentOf("[Net/Eth0]\nip=1\n[Other]\ny=2\n"), 0);
  EXPECT_THAT(callback.GetChanges(), testing::ElementsAre(Change{{"Net/Eth0"}, "[Net/Eth0]\nip=1\nmask=24\n"}));
}

TEST(TavixSettingsClientImplLocal, EverySubscriberIsToldOnceAndOfItsOwnGroups) {
  RecordingCallback a, both;
  TavixSettingsClientImplLocal client(nullptr);
  client.Subscribe(&a, {"A"});
  client.Subscribe(&both, {"A"});
  client.Subscribe(&both, {"B*"});
  client.MergeSettings(DocumentOf("[A]\nx=1\n[B1]\ny=1\n"), 0);
  ASSERT_EQ(a.GetChanges().size(), 1u);
  ASSERT_EQ(both.GetChanges().size(), 1u);
  EXPECT_EQ(a.GetChanges().front().groups, (std::set<std::string>{"A"}));
  EXPECT_EQ(both.GetChanges().front().groups, (std::set<std::string>{"A", "B1"}));
}

TEST(TavixSettingsClientImplLocal, AConditionThatFailsTellsNobody) {
  RecordingCallback callback;
  TavixSettingsClientImplLocal client(nullptr);
  client.Subscribe(&callback, {"*"});
  EXPECT_FALSE(client.TestAndMerge(DocumentOf("[A]\nx=1\n"), DocumentOf("[A]\nx=2\n")));
  EXPECT_TRUE(callback.GetChanges().empty());
}

TEST(TavixSettingsClientImplLocal, ACallbackMayReadAndMustNotChange) {
  const IniFile defaults = DocumentOf("[A]\nx=1\n");
  TavixSettingsClientImplLocal client(&defaults);
  std::string seen;
  RecordingCallback reads([&] { seen = AllOf(client); });
  client.Subscribe(&reads, {"A"});
  client.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  EXPECT_EQ(seen, "[A]\nx=2\n");

  RecordingCallback changes([&] { client.MergeSettings(DocumentOf("[A]\nx=4\n"), 0); });
  client.Subscribe(&changes, {"A"});
  EXPECT_ANY_THROW(client.MergeSettings(DocumentOf("[A]\nx=3\n"), 0));
}

// The facade's UnSubscribe clears the common dispatcher alone, which this client never fills: deliberate.
TEST(TavixSettingsClientImplLocal, KeepsItsSubscribersOutOfTheCommonDispatcher) {
  RecordingCallback callback;
  TavixSettingsClientImplLocal client(nullptr);
  client.Subscribe(&callback, {"A"});
  std::set<std::string> groups;
  client.GetDispatcher().GetAllSubscribedGroups(groups);
  EXPECT_TRUE(groups.empty());
  client.GetDispatcher().RemoveCallback(&callback);
  client.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  EXPECT_EQ(callback.GetChanges().size(), 1u);
}

}  // namespace
