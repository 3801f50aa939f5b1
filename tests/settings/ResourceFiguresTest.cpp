#include "tavix/settings/ResourceFigures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/DocumentText.h"

namespace tavix::settings {

using core::IniFile;
using test::DocumentOf;
using test::TextOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

namespace {

constexpr int kHighest = std::numeric_limits<int>::max();

const std::vector<std::string> kTexts{"0", "1", "7", "10", "33", "100", "-5", "2147483647", "-2147483648", "none", ""};
const std::vector<int> kAmounts{0, 1, 10, 33, 100, -1, kHighest};
const std::vector<double> kShares{0, 0.1, 0.125, 0.333, 1, 1.01, -0.5};

// Figures of the resource R for the consumers A, B and C, and what is A's own business below its group.
class RandomFigures {
 public:
  IniFile Next() {
    IniFile settings;
    if (Once(2)) settings.SetValue("Resources/R", "TotalAvailable", Pick(kTexts));
    for (const char* consumer : {"A", "B", "C", "A/Notes"}) {
      const std::string group = std::string("Resources/R/Consumers/") + consumer;
      if (Once(2)) settings.SetValue(group, "CurrentlyUsed", Pick(kTexts));
      if (Once(2)) settings.SetValue(group, "MaxAllowed", Pick(kTexts));
    }
    if (Once(4)) settings.SetValue("Resources/R/AllowedConsumers", "1", Once(2) ? "A" : "A/Notes");
    if (Once(8)) settings["Resources/R/AllowedConsumers"];
    return settings;
  }

  std::optional<int> Book(const ResourceFigures& figures, const std::string& consumer) {
    if (Once(2)) return figures.FindBooking(consumer, "R", Pick(kAmounts));
    return figures.FindBookingOfShare(consumer, "R", Pick(kShares) * figures.GetTotal("R"));
  }

  template <class Value>
  Value Pick(const std::vector<Value>& values) {
    return values[_random() % values.size()];
  }

 private:
  bool Once(unsigned int times) { return _random() % times == 0; }

  std::mt19937 _random{11};
};

}  // namespace

TEST(ResourceFigures, ResourcesAreTheNamesBehindThePrefix) {
  const IniFile settings = DocumentOf("[Resources/S/Consumers/x]\na=1\n[Resources/R]\na=1\n[Resource/T]\na=1\n");
  EXPECT_THAT(ResourceFigures(settings).GetResources(), ElementsAre("R", "S"));
}

TEST(ResourceFigures, ConsumersHaveAGroupOrAreAllowed) {
  const IniFile settings = DocumentOf(
      "[Resources/R/Consumers/b]\nCurrentlyUsed=1\n[Resources/R/Consumers/a/Notes]\nx=1\n"
      "[Resources/R/AllowedConsumers]\n1=c\n2=b\n");
  EXPECT_THAT(ResourceFigures(settings).GetConsumers("R"), ElementsAre("a", "b", "c"));
  EXPECT_THAT(ResourceFigures(settings).GetConsumers("S"), IsEmpty());
}

TEST(ResourceFigures, WhatAllUseIsNotLimitedByTheRangeOfOneFigure) {
  const IniFile settings = DocumentOf(
      "[Resources/R/Consumers/a]\nCurrentlyUsed=2147483647\n"
      "[Resources/R/Consumers/b]\nCurrentlyUsed=2147483647\n[Resources/R/Consumers/c]\nCurrentlyUsed=many\n");
  EXPECT_EQ(ResourceFigures(settings).GetUsedByAll("R"), 2LL * kHighest);
}

TEST(ResourceFigures, AConsumerHasALimitOfItsOwnOnlyAsANumber) {
  const IniFile settings =
      DocumentOf("[Resources/R/Consumers/a]\nMaxAllowed=7\n[Resources/R/Consumers/b]\nMaxAllowed=many\n");
  const ResourceFigures figures(settings);
  EXPECT_THAT(figures.GetMaxAllowed("a", "R"), Optional(7));
  EXPECT_EQ(figures.GetMaxAllowed("b", "R"), std::nullopt);
  EXPECT_EQ(figures.GetMaxAllowed("c", "R"), std::nullopt);
}

TEST(ResourceFigures, ABookingStandsInItsConsumersGroup) {
  IniFile settings;
  ResourceFigures::SetUsed("a", "R", 20, settings);
  EXPECT_EQ(TextOf(settings), "[Resources/R/Consumers/a]\nCurrentlyUsed=20\n");
  EXPECT_EQ(ResourceFigures(settings).GetUsed("a", "R"), 20);
}

TEST(ResourceFigures, ChangesOfTheDocumentAreSeen) {
  IniFile settings;
  const ResourceFigures figures(settings);
  settings.SetInt("Resources/R", "TotalAvailable", 7);
  EXPECT_EQ(figures.GetTotal("R"), 7);
}

TEST(ResourceFigures, AWholeShareOfTheTotalIsThatNumber) {
  const IniFile settings;
  const ResourceFigures figures(settings);
  for (int share = 0; share <= 100; ++share) EXPECT_THAT(figures.FindBookingOfShare("A", "R", share), Optional(share));
}

TEST(ResourceFigures, ABookingThatIsFoundFits) {
  RandomFigures random;
  for (int i = 0; i < 3000; ++i) {
    const IniFile settings = random.Next();
    const ResourceFigures figures(settings);
    const std::string consumer = random.Pick<std::string>({"A", "A/Notes", "D"});
    const std::optional<int> booking = random.Book(figures, consumer);
    if (booking.value_or(0) == 0) continue;
    IniFile booked = settings;
    ResourceFigures::SetUsed(consumer, "R", *booking, booked);
    const ResourceFigures after(booked);
    EXPECT_GT(*booking, 0) << i;
    EXPECT_LE(*booking, after.GetAvailable(consumer, "R")) << i;
    EXPECT_LE(*booking, after.GetMaxAllowed(consumer, "R").value_or(kHighest)) << i;
    EXPECT_TRUE(after.IsAuthorized(consumer, "R")) << i;
  }
}

TEST(ResourceFigures, OneThatIsNotFoundIsNegativeOrDoesNotFit) {
  RandomFigures random;
  size_t found = 0;
  for (int i = 0; i < 3000; ++i) {
    const IniFile settings = random.Next();
    const ResourceFigures figures(settings);
    const std::string consumer = random.Pick<std::string>({"A", "A/Notes", "D"});
    const int amount = random.Pick(kAmounts);
    const std::optional<int> booking = figures.FindBooking(consumer, "R", amount);
    const bool isExpected = amount == 0 || (amount > 0 && amount <= figures.GetAvailable(consumer, "R"));
    EXPECT_EQ(booking, isExpected ? std::make_optional(amount) : std::nullopt) << i;
    found += booking ? 1 : 0;
  }
  EXPECT_GT(found, 500U);
  EXPECT_LT(found, 2500U);
}

TEST(ResourceFigures, NoClientCanWriteTheGroupOfARestrictedName) {
  EXPECT_TRUE(ResourceFigures::IsWritable("me", "R"));
  EXPECT_FALSE(ResourceFigures::IsWritable("Secure", "R"));
  EXPECT_FALSE(ResourceFigures::IsWritable("me", "UntrustedTrustedR"));
}

TEST(ResourceFigures, AConsumerBelowAnotherIsNotCounted) {
  EXPECT_TRUE(ResourceFigures::IsCounted(""));
  EXPECT_FALSE(ResourceFigures::IsCounted("a/b"));
}

TEST(BookingAttempts, ManyFailuresInARowOnTheSameFiguresAreRefusals) {
  BookingAttempts attempts;
  const IniFile figures = DocumentOf("[Resources/R]\nTotalAvailable=7\n");
  for (int i = 1; i < BookingAttempts::kMaxRefusals; ++i) EXPECT_FALSE(attempts.IsRefusedAfter(figures));
  EXPECT_TRUE(attempts.IsRefusedAfter(figures));
}

TEST(BookingAttempts, FailuresOnFiguresThatChangeAreConflictsHoweverMany) {
  BookingAttempts attempts;
  for (int i = 0; i < 20 * BookingAttempts::kMaxRefusals; ++i)
    EXPECT_FALSE(attempts.IsRefusedAfter(DocumentOf("[R]\nround=" + std::to_string(i / 40) + "\n")));
}

}  // namespace tavix::settings
