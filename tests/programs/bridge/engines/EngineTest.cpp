#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/programs/bridge/engines/EngineKinds.h"
#include "tests/programs/bridge/engines/LinkedEngine.h"
#include "tests/support/BackgroundCall.h"

// What every engine has to do, whatever it is made of.
namespace tavix::test {

using bridge::Connected;
using bridge::EngineEvent;
using bridge::Item;
using bridge::Lost;
using bridge::PutDone;
using bridge::Synced;

namespace {

using testing::ElementsAre;
using testing::Pair;

class EngineTest : public testing::TestWithParam<EngineKind> {
 protected:
  std::unique_ptr<EngineHost> _host = GetParam().make();
  LinkedEngine _engine{[this](bridge::EventQueue& events) { return _host->MakeEngine(events); }};
  LinkedEngine _other{[this](bridge::EventQueue& events) { return _host->MakeOther(events); }};
};

// Of engines that compare, and of those that go on from a version.
class ComparingEngineTest : public EngineTest {};
class ResumableEngineTest : public EngineTest {};

std::string NameOfKind(const testing::TestParamInfo<EngineKind>& info) {
  return info.param.name;
}

}  // namespace

TEST_P(EngineTest, ConnectsFresh) {
  EXPECT_FALSE(_engine.Connect().isResumed);
}

TEST_P(EngineTest, ReportsWhatIsThereBeforeItIsSynced) {
  _other.Connect();
  EXPECT_EQ(_other.Put("fleet/a/1", "one").outcome, PutDone::Outcome::kDone);
  EXPECT_EQ(_other.Put("fleet/a/2/deep", "two").outcome, PutDone::Outcome::kDone);
  _engine.Connect();

  EXPECT_EQ(_engine.Follow({"fleet/a/"}).isComplete, _engine.Get().GetCapabilities().isResumable);
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/a/1", "one"), Pair("fleet/a/2/deep", "two")));
}

TEST_P(EngineTest, IsSyncedWhenThereIsNothing) {
  _engine.Connect();
  EXPECT_EQ(_engine.Follow({"fleet/a/"}).isComplete, _engine.Get().GetCapabilities().isResumable);
  EXPECT_EQ(_engine.GetItemCount(), 0u);
}

TEST_P(EngineTest, ReportsChangesOfOthers) {
  _other.Connect();
  _engine.Connect();
  _engine.Follow({"fleet/a/"});

  _other.Put("fleet/a/1", "one");
  _engine.AwaitValue("fleet/a/1", "one");
  _other.Put("fleet/a/1", "two");
  _engine.AwaitValue("fleet/a/1", "two");
}

TEST_P(EngineTest, ReportsRemovals) {
  _other.Connect();
  _other.Put("fleet/a/1", "one");
  _engine.Connect();
  _engine.Follow({"fleet/a/"});
  ASSERT_EQ(_engine.GetStore().count("fleet/a/1"), 1u);

  EXPECT_EQ(_other.Put("fleet/a/1", std::nullopt).outcome, PutDone::Outcome::kDone);
  _engine.AwaitGone("fleet/a/1");
}

TEST_P(EngineTest, RemovesByEmptyBytes) {
  _other.Connect();
  _other.Put("fleet/a/1", "one");
  _engine.Connect();
  _engine.Follow({"fleet/a/"});

  EXPECT_EQ(_other.Put("fleet/a/1", "").outcome, PutDone::Outcome::kDone);
  _engine.AwaitGone("fleet/a/1");
}

TEST_P(EngineTest, DoesNotReportWhatWasRemovedBefore) {
  _other.Connect();
  _other.Put("fleet/a/1", "one");
  _other.Put("fleet/a/1", std::nullopt);
  _engine.Connect();

  _engine.Follow({"fleet/a/"});
  EXPECT_EQ(_engine.GetStore().size(), 0u);
}

TEST_P(EngineTest, ReportsNothingBesideItsPrefixes) {
  _other.Connect();
  for (const char* key : {"fleet/a", "fleet/ab", "fleet/b/1", "fleet/one/more"}) _other.Put(key, "no");
  _other.Put("fleet/a/1", "yes");
  _other.Put("fleet/one", "yes");
  _engine.Connect();

  _engine.Follow({"fleet/a/", "fleet/one"});
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/a/1", "yes"), Pair("fleet/one", "yes")));
}

TEST_P(EngineTest, ReportsOfNewPrefixesWhatIsThere) {
  _other.Connect();
  _other.Put("fleet/a/1", "one");
  _other.Put("fleet/b/1", "one");
  _engine.Connect();
  _engine.Follow({"fleet/a/"});

  _engine.ForgetStore();
  _engine.Follow({"fleet/a/", "fleet/b/"});
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/b/1", "one")));
}

TEST_P(EngineTest, ReportsAKeyAgainThatIsFollowedAloneAsWell) {
  _other.Connect();
  _other.Put("fleet/a/1", "one");
  _other.Put("fleet/a/2", "two");
  _engine.Connect();
  _engine.Follow({"fleet/a/"});

  _engine.ForgetStore();
  _engine.Follow({"fleet/a/", "fleet/a/1"});
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/a/1", "one")));
}

TEST_P(EngineTest, ReportsNothingOfPrefixesThatItNoLongerFollows) {
  _other.Connect();
  _engine.Connect();
  _engine.Follow({"fleet/a/", "fleet/b/"});
  _engine.Follow({"fleet/b/"});

  _other.Put("fleet/a/1", "one");
  _other.Put("fleet/b/1", "one");
  _engine.AwaitValue("fleet/b/1", "one");
  EXPECT_EQ(_engine.GetStore().count("fleet/a/1"), 0u);
}

TEST_P(EngineTest, CarriesBytesOfAnyForm) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  _other.Connect();
  _other.Put("fleet/a/1", bytes);
  _engine.Connect();

  _engine.Follow({"fleet/a/"});
  EXPECT_EQ(_engine.GetStore().at("fleet/a/1"), bytes);
}

TEST_P(EngineTest, CarriesAMebibyte) {
  const std::string bytes(1024 * 1024, 'x');
  _other.Connect();
  EXPECT_EQ(_other.Put("fleet/a/1", bytes).outcome, PutDone::Outcome::kDone);
  _engine.Connect();

  _engine.Follow({"fleet/a/"});
  EXPECT_EQ(_engine.GetStore().at("fleet/a/1"), bytes);
}

TEST_P(EngineTest, CarriesKeysOfAnyLetters) {
  _other.Connect();
  _other.Put(
      "fleet/a/%2B Gr\xC3\xB6\xC3\x9F"
      "e \"x\"",
      "one");
  _engine.Connect();

  _engine.Follow({"fleet/a/"});
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/a/%2B Gr\xC3\xB6\xC3\x9F"
                                                   "e \"x\"",
                                                   "one")));
}

TEST_P(EngineTest, CarriesOutPutsOfOneKeyInTheirOrder) {
  _other.Connect();
  for (int round = 0; round < 20; ++round) ASSERT_TRUE(_other.Get().Put("fleet/a/1", std::to_string(round), {}));
  for (int round = 0; round < 20; ++round) EXPECT_EQ(_other.Await<PutDone>().key, "fleet/a/1");
  _engine.Connect();

  _engine.Follow({"fleet/a/"});
  EXPECT_EQ(_engine.GetStore().at("fleet/a/1"), "19");
}

TEST_P(EngineTest, TakesNoMorePutsThanMayBePending) {
  _engine.Connect();
  _host->Stall();

  for (std::size_t count = 0; count < bridge::Engine::kMaxInFlight; ++count)
    EXPECT_TRUE(_engine.Get().Put("fleet/a/" + std::to_string(count), "one", {}));
  EXPECT_FALSE(_engine.Get().Put("fleet/a/more", "one", {}));
}

TEST_P(EngineTest, TakesPutsAgainOnceTheyAreDone) {
  _engine.Connect();
  for (int count = 0; count < 50; ++count) EXPECT_EQ(_engine.Put("fleet/a/1", "one").outcome, PutDone::Outcome::kDone);
}

TEST_P(EngineTest, TakesNothingWithoutALink) {
  EXPECT_FALSE(_engine.Get().Put("fleet/a/1", "one", {}));
  _engine.Get().Follow({"fleet/a/"}, 0);
  _engine.Connect();
  _engine.Get().Close();
  EXPECT_FALSE(_engine.Get().Put("fleet/a/1", "one", {}));
}

TEST_P(EngineTest, ReportsThatTheLinkBroke) {
  _engine.Connect();
  _host->Cut();
  const EngineEvent event = _engine.AwaitAny();
  ASSERT_TRUE(std::holds_alternative<Lost>(event));
  EXPECT_NE(std::get<Lost>(event).reason, "");
  EXPECT_FALSE(_engine.Get().Put("fleet/a/1", "one", {}));
}

TEST_P(EngineTest, ReportsThatNoLinkCanBeMade) {
  _host->Cut();
  EXPECT_NE(_engine.FailToConnect().reason, "");
}

TEST_P(EngineTest, ConnectsAgain) {
  _other.Connect();
  _engine.Connect();
  _engine.Follow({"fleet/a/"});
  _host->Cut();
  EXPECT_TRUE(std::holds_alternative<Lost>(_engine.AwaitAny()));
  _other.Put("fleet/a/1", "one");

  _host->Heal();
  _engine.Connect();
  EXPECT_EQ(_engine.Follow({"fleet/a/"}).isComplete, _engine.Get().GetCapabilities().isResumable);
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/a/1", "one")));
}

TEST_P(EngineTest, ReportsNothingOnceItIsClosed) {
  _other.Connect();
  _engine.Connect();
  _engine.Follow({"fleet/a/"});
  _engine.Get().Close();

  _other.Put("fleet/a/1", "one");
  EXPECT_FALSE(_engine.GetQueue().TryPop());
}

TEST_P(EngineTest, EndsAnAttemptThatGetsNoAnswer) {
  _host->Stall();
  _engine.Get().Connect({});
  _engine.Get().Close();
  EXPECT_FALSE(_engine.GetQueue().TryPop());
}

TEST_P(EngineTest, WaitsForWhoTakesItsEvents) {
  constexpr int kItems = 1500;
  _other.Connect();
  for (int count = 0; count < kItems; ++count) _other.Put("fleet/a/" + std::to_string(count), "one");
  _engine.Connect();
  _engine.Get().Follow({"fleet/a/"}, 0);
  ASSERT_TRUE(Eventually([&] { return _engine.GetQueue().GetCount() == bridge::EventQueue::kMaxEvents; }));

  _engine.Await<Synced>();
  EXPECT_EQ(_engine.GetStore().size(), static_cast<std::size_t>(kItems));
}

TEST_P(EngineTest, ClosesWhileNobodyTakesItsEvents) {
  _other.Connect();
  for (int count = 0; count < 1100; ++count) _other.Put("fleet/a/" + std::to_string(count), "one");
  _engine.Connect();
  _engine.Get().Follow({"fleet/a/"}, 0);
  ASSERT_TRUE(Eventually([&] { return _engine.GetQueue().GetCount() == bridge::EventQueue::kMaxEvents; }));

  _engine.Get().Close();
  EXPECT_EQ(_engine.GetQueue().GetCount(), 0u);
}

TEST_P(ComparingEngineTest, WritesWhatHasTheExpectedVersion) {
  _engine.Connect();
  const PutDone first = _engine.Put("fleet/a/1", "one");
  const PutDone second = _engine.Put("fleet/a/1", "two", {first.version, {}});
  EXPECT_EQ(second.outcome, PutDone::Outcome::kDone);
  EXPECT_GT(second.version, first.version);
}

TEST_P(ComparingEngineTest, GivesWhatIsThereInPlaceOfTheExpectedVersion) {
  _other.Connect();
  _engine.Connect();
  const PutDone first = _engine.Put("fleet/a/1", "one");
  const PutDone theirs = _other.Put("fleet/a/1", "theirs");

  const PutDone mine = _engine.Put("fleet/a/1", "mine", {first.version, {}});
  EXPECT_EQ(mine.outcome, PutDone::Outcome::kConflict);
  EXPECT_EQ(mine.present.key, "fleet/a/1");
  EXPECT_EQ(mine.present.bytes, "theirs");
  EXPECT_EQ(mine.present.version, theirs.version);
}

TEST_P(ComparingEngineTest, MakesAKeyOnlyOnce) {
  _engine.Connect();
  EXPECT_EQ(_engine.Put("fleet/a/1", "one", {0, {}}).outcome, PutDone::Outcome::kDone);
  EXPECT_EQ(_engine.Put("fleet/a/1", "two", {0, {}}).outcome, PutDone::Outcome::kConflict);
}

TEST_P(ComparingEngineTest, ReportsThatTheExpectedKeyIsGone) {
  _engine.Connect();
  const PutDone first = _engine.Put("fleet/a/1", "one");
  _engine.Put("fleet/a/1", std::nullopt);

  const PutDone second = _engine.Put("fleet/a/1", "two", {first.version, {}});
  EXPECT_EQ(second.outcome, PutDone::Outcome::kConflict);
  EXPECT_FALSE(second.present.bytes);
}

TEST_P(ComparingEngineTest, RemovesOnlyTheExpectedVersion) {
  _engine.Connect();
  const PutDone first = _engine.Put("fleet/a/1", "one");
  const PutDone second = _engine.Put("fleet/a/1", "two");

  EXPECT_EQ(_engine.Put("fleet/a/1", std::nullopt, {first.version, {}}).outcome, PutDone::Outcome::kConflict);
  EXPECT_EQ(_engine.Put("fleet/a/1", std::nullopt, {second.version, {}}).outcome, PutDone::Outcome::kDone);
}

TEST_P(ComparingEngineTest, ReportsItemsWithTheVersionsOfTheirPuts) {
  _other.Connect();
  const PutDone done = _other.Put("fleet/a/1", "one");
  _engine.Connect();
  _engine.Get().Follow({"fleet/a/"}, 0);
  EXPECT_EQ(_engine.Await<Item>().version, done.version);
}

TEST_P(ResumableEngineTest, ReportsOnlyWhatChangedSinceAStoredVersion) {
  _other.Connect();
  _other.Put("fleet/a/1", "one");
  _other.Put("fleet/a/2", "two");
  const Connected first = _engine.Connect();
  const Synced synced = _engine.Follow({"fleet/a/"});
  _engine.Get().Close();
  _other.Put("fleet/a/1", std::nullopt);
  const PutDone last = _other.Put("fleet/a/3", "three");

  const std::size_t before = _engine.GetItemCount();
  EXPECT_TRUE(_engine.Connect({first.source, {}}).isResumed);
  Synced later = _engine.Follow({"fleet/a/"}, synced.version);
  while (later.version < last.version && !later.isComplete) later = _engine.Await<Synced>();
  EXPECT_FALSE(later.isComplete);
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/a/2", "two"), Pair("fleet/a/3", "three")));
  EXPECT_EQ(_engine.GetItemCount() - before, 2u);
}

TEST_P(ResumableEngineTest, ReportsEverythingAnewWhenItIsAskedTo) {
  _other.Connect();
  _other.Put("fleet/a/1", "one");
  _engine.Connect();
  _engine.Follow({"fleet/a/"});

  _engine.ForgetStore();
  _engine.Get().Follow({"fleet/a/"}, 0);
  _engine.Await<bridge::Reread>();
  EXPECT_TRUE(_engine.Await<Synced>().isComplete);
  EXPECT_THAT(_engine.GetStore(), ElementsAre(Pair("fleet/a/1", "one")));
  _other.Put("fleet/a/1", "two");
  _engine.AwaitValue("fleet/a/1", "two");
}

TEST_P(ResumableEngineTest, IsSyncedAgainBehindChanges) {
  _other.Connect();
  _engine.Connect();
  const Synced first = _engine.Follow({"fleet/a/"});
  const PutDone done = _other.Put("fleet/a/1", "one");

  Synced later = _engine.Await<Synced>();
  while (later.version < done.version) later = _engine.Await<Synced>();
  EXPECT_GT(later.version, first.version);
  EXPECT_EQ(_engine.GetStore().at("fleet/a/1"), "one");
}

TEST_P(ResumableEngineTest, IsFreshWithVersionsOfAnotherSource) {
  _engine.Connect();
  EXPECT_FALSE(_engine.Connect({"another", {}}).isResumed);
}

INSTANTIATE_TEST_SUITE_P(All, EngineTest, testing::ValuesIn(AllEngines()), NameOfKind);
INSTANTIATE_TEST_SUITE_P(Comparing, ComparingEngineTest, testing::ValuesIn(ComparingEngines()), NameOfKind);
INSTANTIATE_TEST_SUITE_P(Resumable, ResumableEngineTest, testing::ValuesIn(ResumableEngines()), NameOfKind);

}  // namespace tavix::test
