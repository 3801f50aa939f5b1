#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/bridge/core/GroupChange.h"
#include "programs/bridge/core/LossGuard.h"
#include "programs/bridge/core/PatternOverlap.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/core/SendSchedule.h"
#include "programs/bridge/core/ThreeWayMerge.h"

// The parts that the mirrors are made of.
namespace {

using tavix::bridge::Conflict;
using tavix::bridge::DoPatternsOverlap;
using tavix::bridge::Keys;
using tavix::bridge::Limits;
using tavix::bridge::LossGuard;
using tavix::bridge::MergedGroup;
using tavix::bridge::MergeThreeWay;
using tavix::bridge::Milliseconds;
using tavix::bridge::Report;
using tavix::bridge::Rules;
using tavix::bridge::SendSchedule;
using tavix::bridge::Severity;
using tavix::bridge::Side;

TEST(MergeThreeWay, TakesEachKeyFromTheEndThatChangedIt) {
  const MergedGroup merged = MergeThreeWay("G", {{"a", "1"}, {"b", "1"}, {"c", "1"}, {"d", "1"}},
                                           {{"a", "2"}, {"b", "1"}, {"d", "1"}, {"new", "x"}},
                                           {{"a", "1"}, {"b", "2"}, {"c", "1"}}, Side::kCentre);
  EXPECT_EQ(merged.keys, (Keys{{"a", "2"}, {"b", "2"}, {"new", "x"}}));
  EXPECT_TRUE(merged.conflicts.empty());
}

TEST(MergeThreeWay, KeepsTheWinnersOfWhatBothChanged) {
  for (const Side winner : {Side::kCentre, Side::kDevice}) {
    const bool isDevice = winner == Side::kDevice;
    const MergedGroup merged = MergeThreeWay("G", {{"k", "1"}}, {{"k", "here"}}, {{"k", "there"}}, winner);
    EXPECT_EQ(merged.keys, (Keys{{"k", isDevice ? "here" : "there"}}));
    ASSERT_EQ(merged.conflicts.size(), 1u);
    EXPECT_EQ(merged.conflicts[0].lost, isDevice ? "there" : "here");
  }
}

TEST(MergeThreeWay, CountsARemovalAsAChange) {
  const MergedGroup merged = MergeThreeWay("G", {{"k", "1"}}, {}, {{"k", "2"}}, Side::kDevice);
  EXPECT_TRUE(merged.keys.empty());
  EXPECT_EQ(merged.conflicts, (std::vector<Conflict>{{"G", "k", std::nullopt, "2", Side::kCentre}}));
}

TEST(MergeThreeWay, HasNothingToDecideOfWhatBothChangedAlike) {
  const MergedGroup merged = MergeThreeWay("G", {{"k", "1"}, {"l", "1"}}, {{"k", "2"}}, {{"k", "2"}}, Side::kCentre);
  EXPECT_EQ(merged.keys, (Keys{{"k", "2"}}));
  EXPECT_TRUE(merged.conflicts.empty());
}

TEST(DoPatternsOverlap, FindsATextThatBothMatch) {
  EXPECT_TRUE(DoPatternsOverlap("Net/*", "*/Eth0"));
  EXPECT_TRUE(DoPatternsOverlap("a*c", "ab*"));
  EXPECT_TRUE(DoPatternsOverlap("*", ""));
  EXPECT_TRUE(DoPatternsOverlap("Net/Eth0", "Net/Eth0"));
  EXPECT_TRUE(DoPatternsOverlap("a**b", "ab"));
  EXPECT_FALSE(DoPatternsOverlap("Net/*", "State/*"));
  EXPECT_FALSE(DoPatternsOverlap("*a", "*b"));
  EXPECT_FALSE(DoPatternsOverlap("a*", ""));
  EXPECT_FALSE(DoPatternsOverlap("Net", "Net/*"));
}

TEST(SendSchedule, SendsAGroupOnceEachIntervalWhateverChanged) {
  SendSchedule schedule{Limits()};
  for (int i = 0; i < 1000; ++i) schedule.Add("A");
  EXPECT_EQ(schedule.Take(Milliseconds(0)), "A");
  EXPECT_FALSE(schedule.Take(Milliseconds(0)));
  schedule.OnSent("A", Milliseconds(0));
  schedule.Add("A");
  schedule.OnDone("A");
  EXPECT_FALSE(schedule.Take(Milliseconds(199)));
  EXPECT_EQ(schedule.GetNext(Milliseconds(0)), Milliseconds(200));
  EXPECT_EQ(schedule.Take(Milliseconds(200)), "A");
}

TEST(SendSchedule, SendsABurstAndThenTenASecond) {
  SendSchedule schedule{Limits()};
  for (int i = 0; i < 100; ++i) schedule.Add(std::to_string(i));
  size_t sent = 0;
  const auto sendAll = [&](Milliseconds now) {
    while (const auto group = schedule.Take(now)) {
      schedule.OnSent(*group, now);
      schedule.OnDone(*group);
      ++sent;
    }
  };
  sendAll(Milliseconds(0));
  EXPECT_EQ(sent, 50u);
  sendAll(Milliseconds(1000));
  EXPECT_EQ(sent, 60u);
  EXPECT_EQ(schedule.GetNext(Milliseconds(1000)), Milliseconds(1100));
}

TEST(SendSchedule, HasTwentyMessagesOnTheirWayAtMost) {
  SendSchedule schedule{Limits()};
  for (int i = 0; i < 30; ++i) schedule.Add(std::to_string(i));
  for (int i = 0; i < 20; ++i) {
    const auto group = schedule.Take(Milliseconds(0));
    ASSERT_TRUE(group);
    schedule.OnSent(*group, Milliseconds(0));
  }
  EXPECT_FALSE(schedule.Take(Milliseconds(0)));
  EXPECT_FALSE(schedule.GetNext(Milliseconds(0)));
  schedule.OnDone("0");
  EXPECT_EQ(schedule.Take(Milliseconds(0)), "20");
}

std::set<std::string> Names(int from, int to) {
  std::set<std::string> names;
  for (int i = from; i < to; ++i) names.insert(std::to_string(i));
  return names;
}

TEST(LossGuard, HoldsLossesOfMoreThanTenGroupsAndMoreThanHalf) {
  EXPECT_TRUE(LossGuard{Limits()}.Allow(Names(0, 10), 10, Milliseconds(0)));
  EXPECT_TRUE(LossGuard{Limits()}.Allow(Names(0, 50), 100, Milliseconds(0)));
  EXPECT_FALSE(LossGuard{Limits()}.Allow(Names(0, 51), 100, Milliseconds(0)));
  EXPECT_FALSE(LossGuard{Limits()}.Allow(Names(0, 11), 11, Milliseconds(0)));
}

TEST(LossGuard, CountsWhatIsLostShortlyAfterwards) {
  LossGuard guard{Limits()};
  EXPECT_TRUE(guard.Allow(Names(0, 10), 20, Milliseconds(0)));
  EXPECT_FALSE(guard.Allow(Names(10, 11), 20, Limits().heldWindow));
  LossGuard later{Limits()};
  EXPECT_TRUE(later.Allow(Names(0, 10), 20, Milliseconds(0)));
  EXPECT_TRUE(later.Allow(Names(10, 20), 20, Limits().heldWindow + Milliseconds(1)));
}

// A group that lost all of its values is no longer mirrored.
TEST(LossGuard, MeansHalfOfWhatThereWasBeforeTheLosses) {
  LossGuard guard{Limits()};
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(guard.Allow(Names(i, i + 1), 100 - static_cast<size_t>(i), Milliseconds(0))) << i;
  EXPECT_FALSE(guard.Allow(Names(50, 51), 50, Milliseconds(0)));
}

TEST(LossGuard, KeepsWhatIsHeldBehindTheWindow) {
  const Milliseconds later = 2 * Limits().heldWindow;
  LossGuard guard{Limits()};
  ASSERT_TRUE(guard.Allow(Names(0, 10), 12, Milliseconds(0)));
  ASSERT_FALSE(guard.Allow(Names(10, 12), 12, Milliseconds(0)));
  EXPECT_FALSE(guard.Allow(Names(10, 11), 2, later));
  EXPECT_TRUE(guard.Allow(Names(20, 21), 22, later));  // of others nothing is held
  guard.Accept();
  EXPECT_TRUE(guard.Allow(Names(10, 12), 2, later));
}

TEST(LossGuard, LetsThemHappenOnceTheyAreAccepted) {
  LossGuard guard{Limits()};
  ASSERT_FALSE(guard.Allow(Names(0, 20), 20, Milliseconds(0)));
  EXPECT_EQ(guard.GetHeld().size(), 20u);
  guard.Accept();
  EXPECT_TRUE(guard.Allow(Names(0, 20), 20, Milliseconds(0)));
  EXPECT_TRUE(guard.GetHeld().empty());
}

TEST(Report, ShowsNoValueOfAMaskedKey) {
  std::vector<std::string> lines;
  const Rules rules({}, {}, {"[*]secret"});
  Report report(Limits(), rules, [&lines](Severity, const std::string& line) { lines.push_back(line); });
  report.AddConflict({"Net", "secret", "new", "old", Side::kDevice});
  report.AddConflict({"Net", "mtu", "1", std::nullopt, Side::kCentre});
  EXPECT_THAT(lines,
              testing::ElementsAre("The device's value of [Net]secret is overridden",
                                   "The centre's value of [Net]mtu is overridden: '1' is kept, no value is lost"));
  EXPECT_FALSE(report.GetConflicts()[0].kept || report.GetConflicts()[0].lost);
}

TEST(Report, RemembersOfAnAttemptItsOwnConflictsAlone) {
  const Rules rules({}, {}, {});
  Report report(Limits(), rules, [](Severity, const std::string&) {});
  const Conflict one{"Net/A", "k", "1", "2", Side::kDevice};
  const Conflict other{"Net/A", "k", "1", "3", Side::kDevice};
  std::vector<Conflict> reported;
  report.AddConflicts({one}, reported);
  report.AddConflicts({one, other}, reported);
  report.AddConflicts({other}, reported);
  EXPECT_EQ(report.counters.overridden, 2u);
  EXPECT_THAT(reported, testing::ElementsAre(other));
}

TEST(Report, RemembersTheLastHundredConflicts) {
  const Rules rules({}, {}, {});
  Report report(Limits(), rules, [](Severity, const std::string&) {});
  for (int i = 0; i < 150; ++i) report.AddConflict({"G", std::to_string(i), "1", "2", Side::kDevice});
  EXPECT_EQ(report.GetConflicts().size(), 100u);
  EXPECT_EQ(report.GetConflicts().front().key, "50");
  EXPECT_EQ(report.counters.overridden, 150u);
}

}  // namespace
