#include "programs/bridge/engines/MemoryBroker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/programs/bridge/engines/LinkedEngine.h"
#include "tests/programs/bridge/engines/MemoryHost.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

using bridge::Item;
using bridge::Lost;
using bridge::MemoryBroker;
using bridge::PutDone;
using bridge::Reread;
using bridge::Synced;

namespace {

using testing::ElementsAre;
using testing::Pair;

class MemoryBrokerTest : public testing::Test {
 protected:
  MemoryHost _host{{true, true}};
  MemoryBroker& _broker = _host.GetBroker();
  LinkedEngine _engine{[this](bridge::EventQueue& events) { return _host.MakeEngine(events); }};
};

}  // namespace

TEST_F(MemoryBrokerTest, LosesSoManyItems) {
  _engine.Connect();
  _engine.Follow({"a/"});
  _broker.LoseItems(1);
  _broker.Put("a/1", "one");
  _broker.Put("a/2", "two");

  EXPECT_EQ(_engine.Await<Item>().key, "a/2");
}

TEST_F(MemoryBrokerTest, RepeatsSoManyItems) {
  _engine.Connect();
  _engine.Follow({"a/"});
  _broker.RepeatItems(1);
  _broker.Put("a/1", "one");

  EXPECT_EQ(_engine.Await<Item>().key, "a/1");
  EXPECT_EQ(_engine.Await<Item>().key, "a/1");
}

TEST_F(MemoryBrokerTest, CarriesOutAPutWhoseAnswerIsLost) {
  _engine.Connect();
  _broker.BreakAfterNextPut("engine");
  ASSERT_TRUE(_engine.Get().Put("a/1", "one", {}));

  EXPECT_TRUE(std::holds_alternative<Lost>(_engine.AwaitAny()));
  EXPECT_EQ(_broker.Get("a/1")->bytes, "one");
}

TEST_F(MemoryBrokerTest, HoldsEverythingOfAStalledLink) {
  _engine.Connect();
  _engine.Follow({"a/"});
  _broker.Stall("engine");
  _broker.Put("a/1", "one");
  ASSERT_TRUE(_engine.Get().Put("a/2", "two", {}));
  EXPECT_FALSE(_broker.Get("a/2"));

  _broker.Resume("engine");
  _engine.Await<PutDone>();
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("a/1", "one"), Pair("a/2", "two")));
}

TEST_F(MemoryBrokerTest, IsOfAnotherSourceAfterItWasRestored) {
  const MemoryBroker::Store backup = _broker.GetAll();
  const std::string source = _engine.Connect().source;
  _broker.Put("a/1", "one");

  _broker.RestartWith(backup);
  EXPECT_TRUE(std::holds_alternative<Lost>(_engine.AwaitAny()));
  EXPECT_FALSE(_engine.Connect({source, {}}).isResumed);
  EXPECT_FALSE(_broker.Get("a/1"));
}

TEST_F(MemoryBrokerTest, ReportsEverythingToWhoComesFromBeforeTheCompaction) {
  _broker.Put("a/1", "one");
  const std::string source = _engine.Connect().source;
  const Synced synced = _engine.Follow({"a/"});
  _engine.Get().Close();
  _broker.Put("a/2", "two");
  _broker.Compact();

  _engine.Connect({source, {}});
  EXPECT_FALSE(_engine.Follow({"a/"}, synced.version).isComplete);
  _engine.Await<Reread>();
  _engine.ForgetStore();
  EXPECT_TRUE(_engine.Await<Synced>().isComplete);
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("a/1", "one"), Pair("a/2", "two")));
}

TEST_F(MemoryBrokerTest, ReportsEverythingToAStalledLinkWhoseChangesAreCompacted) {
  _engine.Connect();
  _broker.Put("a/1", "one");
  _engine.Follow({"a/"});
  _broker.Stall("engine");
  _broker.Put("a/1", std::nullopt);
  _broker.Compact();
  _broker.Resume("engine");

  _engine.Await<Reread>();
  _engine.ForgetStore();
  EXPECT_TRUE(_engine.Await<Synced>().isComplete);
  EXPECT_TRUE(_engine.GetStore().empty());
}

TEST_F(MemoryBrokerTest, RefusesSoManyPuts) {
  _engine.Connect();
  _broker.RefusePuts(1);
  EXPECT_EQ(_engine.Put("a/1", "one").outcome, PutDone::Outcome::kRefused);
  EXPECT_EQ(_engine.Put("a/1", "one").outcome, PutDone::Outcome::kDone);
}

TEST_F(MemoryBrokerTest, LosesSoManySynced) {
  _engine.Connect();
  _broker.LoseSynced(1);
  _engine.Get().Follow({"a/"}, 0);
  _broker.Put("a/1", "one");
  EXPECT_EQ(_engine.Await<Synced>().version, 1u);  // that of the change
}

TEST_F(MemoryBrokerTest, PublishesTheLastWillOfABrokenLink) {
  _engine.Connect({"", bridge::LastWill{"a/status", "offline"}});
  EXPECT_FALSE(_broker.Get("a/status"));
  _broker.Restart();
  EXPECT_EQ(_broker.Get("a/status")->bytes, "offline");
}

TEST_F(MemoryBrokerTest, IsQuietOnceEverythingIsHandedOver) {
  _engine.Connect();
  _engine.Follow({"a/"});
  _broker.Put("a/1", "one");
  EXPECT_TRUE(Eventually([&] { return _broker.IsQuiet(); }));
  EXPECT_EQ(_engine.GetQueue().GetCount(), 2u);
}

}  // namespace tavix::test
