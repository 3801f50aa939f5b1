#include "programs/server/persistence/DurabilityGate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {

using daemon::DurabilityGate;
using settings::common::GroupNameMatcher;

namespace {

const std::set<std::string> kA = {"A"};
const std::set<std::string> kB = {"B"};

class CountingOutput : public daemon::IHeldOutput {
 public:
  void OnDurable() override { ++calls; }

  int calls = 0;
};

GroupNameMatcher Matching(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

DurabilityGate::Groups GroupsOf(std::initializer_list<int> numbers) {
  std::set<std::string> groups;
  for (const int number : numbers) groups.insert("G" + std::to_string(number));
  return std::make_shared<const std::set<std::string>>(groups);
}

class DurabilityGateTest : public testing::Test {
 protected:
  DurabilityGate::Ticket FindLast(const std::string& nameOrPattern) const {
    const GroupNameMatcher matcher = Matching(nameOrPattern);
    return _gate.FindLast(&matcher);
  }

  bool IsHeld(const std::string& nameOrPattern) const { return !_gate.IsDurable(FindLast(nameOrPattern)); }

  DurabilityGate _gate{true};
  const std::shared_ptr<CountingOutput> _output = std::make_shared<CountingOutput>();
};

}  // namespace

TEST_F(DurabilityGateTest, NothingIsHeldAtFirst) {
  EXPECT_FALSE(IsHeld("*"));
  EXPECT_TRUE(_gate.IsDurable(_gate.FindLast(nullptr)));
  EXPECT_FALSE(_gate.Await(0, _output));
}

TEST_F(DurabilityGateTest, ChangeIsHeldUntilItIsDurable) {
  const DurabilityGate::Ticket ticket = _gate.Add(&kA);
  EXPECT_TRUE(IsHeld("A"));
  _gate.SetDurable(ticket);
  EXPECT_FALSE(IsHeld("A"));
}

TEST_F(DurabilityGateTest, MessageShowsTheLastChangeOfItsGroups) {
  const DurabilityGate::Ticket first = _gate.Add(&kA);
  const DurabilityGate::Ticket second = _gate.Add(&kB);
  EXPECT_EQ(FindLast("A"), first);
  EXPECT_EQ(FindLast("B"), second);
  EXPECT_EQ(FindLast("*"), second);
  EXPECT_EQ(_gate.FindLast(nullptr), second);
  EXPECT_FALSE(IsHeld("C"));
}

TEST_F(DurabilityGateTest, GroupThatChangesAgainWaitsForTheLaterChange) {
  const DurabilityGate::Ticket first = _gate.Add(&kA);
  _gate.Add(&kA);
  _gate.SetDurable(first);
  EXPECT_TRUE(IsHeld("A"));
}

TEST_F(DurabilityGateTest, ChangeThatAnyGroupMayShowHoldsAllMessages) {
  const DurabilityGate::Ticket ticket = _gate.Add(nullptr);
  EXPECT_TRUE(IsHeld("C"));
  _gate.SetDurable(ticket);
  EXPECT_FALSE(IsHeld("C"));
}

// To wait for all of them is right, too, and sooner done.
TEST_F(DurabilityGateTest, ManyPatternsAreNotTriedOnManyGroups) {
  for (int group = 0; group < 100; ++group) {
    const std::set<std::string> changed = {"A" + std::to_string(group)};
    _gate.Add(&changed);
  }
  GroupNameMatcher matcher;
  for (int pattern = 0; pattern < 10; ++pattern) matcher.AddNameOrPattern("B" + std::to_string(pattern) + "*");
  EXPECT_TRUE(_gate.IsDurable(_gate.FindLast(&matcher)));
  matcher.AddNameOrPattern("C*");
  EXPECT_EQ(_gate.FindLast(&matcher), _gate.FindLast(nullptr));
}

TEST_F(DurabilityGateTest, WaitingOutputIsToldOnceWhenItsChangeIsDurable) {
  const DurabilityGate::Ticket first = _gate.Add(&kA);
  const DurabilityGate::Ticket second = _gate.Add(&kA);
  EXPECT_TRUE(_gate.Await(second, _output));
  _gate.SetDurable(first);
  EXPECT_EQ(_output->calls, 0);
  _gate.SetDurable(second);
  _gate.SetDurable(second);
  EXPECT_EQ(_output->calls, 1);
}

TEST_F(DurabilityGateTest, LaterChangeThatIsDurableMakesTheEarlierOnesSo) {
  const DurabilityGate::Ticket first = _gate.Add(&kA);
  EXPECT_TRUE(_gate.Await(first, _output));
  _gate.SetDurable(_gate.Add(&kB));
  EXPECT_EQ(_output->calls, 1);
  _gate.SetDurable(first);
  EXPECT_TRUE(_gate.IsDurable(_gate.FindLast(nullptr)));
}

TEST_F(DurabilityGateTest, StopsHoldingUntilItHoldsAgain) {
  EXPECT_TRUE(_gate.Await(_gate.Add(&kA), _output));
  _gate.StopHolding();
  EXPECT_EQ(_output->calls, 1);
  _gate.Add(&kB);
  EXPECT_FALSE(IsHeld("*"));
  _gate.Hold();
  EXPECT_FALSE(IsHeld("*"));
  _gate.Add(&kB);
  EXPECT_TRUE(IsHeld("B"));
}

// A change that is made while the gate is being opened is not held, and must not make those before it look released.
TEST_F(DurabilityGateTest, ReleasesWhatWaitsThoughChangesAreMadeMeanwhile) {
  for (int i = 0; i < 500; ++i) {
    DurabilityGate gate(true);
    const auto output = std::make_shared<CountingOutput>();
    EXPECT_TRUE(gate.Await(gate.Add(&kA), output));
    std::thread writer([&] {
      for (int change = 0; change < 20; ++change) gate.Add(&kB);
    });
    gate.StopHolding();
    writer.join();
    ASSERT_EQ(output->calls, 1);
  }
}

TEST_F(DurabilityGateTest, ChangeIsToldItsOwnTicketWhateverOtherThreadsChange) {
  const DurabilityGate::Ticket ticket = _gate.Add(&kA);
  std::thread([this] { _gate.Add(&kB); }).join();
  EXPECT_EQ(FindLast("A"), ticket);
  EXPECT_LT(ticket, _gate.FindLast(nullptr));
}

TEST_F(DurabilityGateTest, RequestThatChangesNothingReliesOnTheLastChangeOfItsGroups) {
  const DurabilityGate::Ticket first = _gate.Add(&kA);
  _gate.Add(&kB);
  EXPECT_EQ(FindLast("A"), first);
  EXPECT_EQ(FindLast("C"), 0u);
}

TEST(OpenDurabilityGate, HoldsNothing) {
  DurabilityGate gate(false);
  const DurabilityGate::Ticket ticket = gate.Add(&kA);
  EXPECT_TRUE(gate.IsDurable(ticket));
  EXPECT_FALSE(gate.Await(ticket, std::make_shared<CountingOutput>()));
}

TEST_F(DurabilityGateTest, ManyGroupsAreHeldAsFewAre) {
  const auto many = std::make_shared<const std::set<std::string>>(std::set<std::string>{"A", "B"});
  const DurabilityGate::Ticket ticket = _gate.AddMany(many);
  EXPECT_TRUE(IsHeld("A"));
  EXPECT_TRUE(IsHeld("B"));
  EXPECT_FALSE(IsHeld("C"));
  EXPECT_TRUE(IsHeld("*"));
  _gate.SetDurable(ticket);
  EXPECT_FALSE(IsHeld("A"));
}

// A crash could take it back that nothing else is held for.
TEST_F(DurabilityGateTest, ChangeCanBeHeldWhileNothingElseIs) {
  _gate.StopHolding();
  const DurabilityGate::Ticket ticket = _gate.Add(&kA, true);
  EXPECT_TRUE(IsHeld("A"));
  _gate.StopHolding(ticket - 1);
  EXPECT_TRUE(IsHeld("A"));
  _gate.SetDurable(ticket);
  EXPECT_FALSE(IsHeld("A"));
  _gate.Add(&kB);
  EXPECT_FALSE(IsHeld("B"));
}

TEST_F(DurabilityGateTest, ManyLargeChangesAreHeldEachUntilItsTicketIsDurable) {
  std::vector<DurabilityGate::Ticket> tickets;
  for (int change = 0; change < 20; ++change) tickets.push_back(_gate.AddMany(GroupsOf({change, change + 1})));
  EXPECT_EQ(FindLast("G0"), tickets[0]);
  EXPECT_EQ(FindLast("G7"), tickets[7]);
  EXPECT_EQ(FindLast("G20"), tickets[19]);
  _gate.SetDurable(tickets[7]);
  EXPECT_FALSE(IsHeld("G7"));
  EXPECT_TRUE(IsHeld("G8"));
  _gate.SetDurable(tickets[19]);
  EXPECT_FALSE(IsHeld("*"));
}

// A disk that hangs while clients go on to make large changes must not cost memory for each of them.
TEST_F(DurabilityGateTest, GroupsOfManyLargeChangesAreNotKeptForEachOfThem) {
  std::vector<std::weak_ptr<const std::set<std::string>>> kept;
  for (int change = 0; change < 100; ++change) {
    const DurabilityGate::Groups groups = GroupsOf({change % 10});
    kept.push_back(groups);
    _gate.AddMany(groups);
  }
  const auto isKept = [](const auto& groups) { return !groups.expired(); };
  EXPECT_LT(std::count_if(kept.begin(), kept.end(), isKept), 10);
  EXPECT_EQ(FindLast("G9"), 100u);
  EXPECT_EQ(FindLast("G0"), 91u);
}

TEST_F(DurabilityGateTest, LargeChangeThatIsMadeAgainIsHeldUntilTheLastTimeIsDurable) {
  const DurabilityGate::Groups groups = GroupsOf({1, 2});
  const DurabilityGate::Ticket first = _gate.AddMany(groups);
  const DurabilityGate::Ticket other = _gate.AddMany(GroupsOf({3}));
  const DurabilityGate::Ticket again = _gate.AddMany(groups);
  EXPECT_EQ(FindLast("G1"), again);
  _gate.SetDurable(first);
  EXPECT_TRUE(IsHeld("G1"));
  _gate.SetDurable(other);
  EXPECT_FALSE(IsHeld("G3"));
  EXPECT_TRUE(IsHeld("G2"));
}

}  // namespace tavix::test
