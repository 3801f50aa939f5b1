#include "tavix/settings/ResourceManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include "tavix/osa/Exception.h"
#include "tests/settings/ResourceManagerTest.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/AnsweringServer.h"

namespace tavix::settings {

using test::Amount;
using test::AnsweringServer;
using test::BookingOf;
using test::Client;
using test::kShared;
using test::Mode;
using test::Share;
using test::StoreInMode;
using test::Using;
using testing::ElementsAre;

namespace {

// What "me" may hold of the resource R in a store with those settings.
int AvailableIn(const std::string& settings) {
  StoreInMode store(Client::Local, settings);
  return ResourceManager(store.GetClient()).GetAvailable("me", "R");
}

}  // namespace

TEST(ResourceManager, AResourceWithoutGroupsHasATotalOf100AndAllOfItForAnybody) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode);
    ResourceManager manager(store.GetClient());
    EXPECT_EQ(manager.GetTotal("R"), 100);
    EXPECT_EQ(manager.GetUsed("me", "R"), 0);
    EXPECT_EQ(manager.GetAvailable("me", "R"), 100);
    EXPECT_EQ(manager.GetAvailablePercent("me", "R"), 1.0);
    EXPECT_TRUE(manager.IsAuthorized("me", "R"));
    EXPECT_EQ(store.Read("*"), "");
  }
}

TEST(ResourceManager, OnesOwnBookingIsNotSubtracted) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kShared);
    ResourceManager manager(store.GetClient());
    EXPECT_EQ(manager.GetTotal("R"), 100);
    EXPECT_EQ(manager.GetUsed("me", "R"), 10);
    EXPECT_EQ(manager.GetAvailable("me", "R"), 20);
    EXPECT_EQ(manager.GetAvailablePercent("me", "R"), 0.2);
    EXPECT_EQ(manager.GetAvailable("newcomer", "R"), 10);
  }
}

TEST(ResourceManager, TheMostThatAConsumerMayHaveLimitsItFurther) {
  const std::string mine = std::string(kShared) + "MaxAllowed=";  // of the last group, "me"
  EXPECT_EQ(AvailableIn(mine + "15\n"), 15);
  EXPECT_EQ(AvailableIn(mine + "20\n"), 20);
  EXPECT_EQ(AvailableIn(mine + "25\n"), 20);
  EXPECT_EQ(AvailableIn(mine + "0\n"), 0);
  EXPECT_EQ(AvailableIn(mine + "-5\n"), -5);
}

TEST(ResourceManager, OnlyTheValuesOfAllowedConsumersMayUseTheResource) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Resources/R/AllowedConsumers]\n1=camera\nme=Recorder\n");
    ResourceManager manager(store.GetClient());
    EXPECT_TRUE(manager.IsAuthorized("camera", "R"));
    EXPECT_TRUE(manager.IsAuthorized("Recorder", "R"));
    for (const char* consumer : {"me", "1", "Camera", "camera ", "cam", "camera2", ""}) {
      EXPECT_FALSE(manager.IsAuthorized(consumer, "R")) << consumer;
      EXPECT_EQ(manager.GetAvailable(consumer, "R"), 0) << consumer;
      EXPECT_EQ(manager.GetAvailablePercent(consumer, "R"), 0.0) << consumer;
    }
  }
}

TEST(ResourceManager, AnEmptyGroupOfAllowedConsumersAllowsNobody) {
  StoreInMode store(Client::Local, "[Resources/R/AllowedConsumers]\n");
  ResourceManager manager(store.GetClient());
  EXPECT_FALSE(manager.IsAuthorized("me", "R"));
  EXPECT_FALSE(manager.IsAuthorized("", "R"));
}

TEST(ResourceManager, WhoIsNotAuthorisedCanBookNothingButZero) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Resources/R/AllowedConsumers]\n1=camera\n");
    ResourceManager manager(store.GetClient());
    EXPECT_FALSE(manager.ReserveForConsumer("me", {Amount(1)}));
    EXPECT_FALSE(manager.ReserveForConsumer("me", {Share(0.5)}));
    EXPECT_EQ(BookingOf("me", store), "");
    EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(0)}));
    EXPECT_EQ(BookingOf("me", store), "0");
  }
}

TEST(ResourceManager, ABookingThatFitsIsMade) {
  for (const Mode mode : test::kAllModes) {
    for (const int amount : {0, 1, 19, 20}) {
      StoreInMode store(mode, kShared);
      ResourceManager manager(store.GetClient());
      EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(amount)})) << amount;
      EXPECT_EQ(BookingOf("me", store), std::to_string(amount));
      EXPECT_EQ(manager.GetUsed("me", "R"), amount);
    }
  }
}

TEST(ResourceManager, ABookingThatDoesNotFitChangesNothing) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kShared);
    ResourceManager manager(store.GetClient());
    for (const int amount : {21, 100, std::numeric_limits<int>::max(), -1, std::numeric_limits<int>::min()})
      EXPECT_FALSE(manager.ReserveForConsumer("me", {Amount(amount)})) << amount;
    EXPECT_EQ(store.Read("*"), kShared);
    EXPECT_EQ(manager.GetUsed("me", "R"), 10);
    EXPECT_EQ(manager.GetAvailable("me", "R"), 20);
  }
}

TEST(ResourceManager, ABookingReplacesTheOneBefore) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kShared);
    ResourceManager manager(store.GetClient());
    for (const int amount : {20, 5, 20, 0}) {
      EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(amount)}));
      EXPECT_EQ(BookingOf("me", store), std::to_string(amount));
    }
    EXPECT_EQ(BookingOf("a", store) + " " + BookingOf("b", store), "30 50");
  }
}

TEST(ResourceManager, ZeroCanBeBookedEvenWhenOthersHoldMoreThanTheTotal) {
  StoreInMode store(Client::Local, Using("a", "80") + Using("b", "70") + Using("me", "10"));
  ResourceManager manager(store.GetClient());
  EXPECT_EQ(manager.GetAvailable("me", "R"), -50);
  EXPECT_EQ(manager.GetAvailablePercent("me", "R"), -0.5);
  EXPECT_FALSE(manager.ReserveForConsumer("me", {Amount(1)}));
  EXPECT_FALSE(manager.ReserveForConsumer("me", {Share(0.01)}));
  EXPECT_EQ(BookingOf("me", store), "10");
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(0)}));
  EXPECT_EQ(BookingOf("me", store), "0");
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Share(0.0)}));
}

TEST(ResourceManager, AConsumersSubGroupsCountNothing) {
  EXPECT_EQ(AvailableIn(Using("a", "5") + Using("a/x", "50") + Using("a/y/z", "50")), 95);
  EXPECT_EQ(AvailableIn(Using("b/x", "50")), 100);
  EXPECT_EQ(AvailableIn(Using("me/x", "50")), 100);
}

TEST(ResourceManager, AConsumerWhoseSubGroupSortsApartFromItCountsOnce) {
  EXPECT_EQ(AvailableIn(Using("a", "5") + Using("a-b", "7") + Using("a/x", "50")), 88);
  EXPECT_EQ(AvailableIn(Using("a", "5") + Using("a b", "7") + Using("a!", "11") + Using("a/x", "50")), 77);
}

TEST(ResourceManager, AConsumerMayHaveAnEmptyName) {
  StoreInMode store(Client::Local, Using("", "5"));
  ResourceManager manager(store.GetClient());
  EXPECT_EQ(manager.GetUsed("", "R"), 5);
  EXPECT_EQ(manager.GetAvailable("", "R"), 100);
  EXPECT_EQ(manager.GetAvailable("me", "R"), 95);
}

TEST(ResourceManager, GroupsBehindTheConsumersAreNotConsumers) {
  EXPECT_EQ(AvailableIn("[Resources/R/Consumers0/a]\nCurrentlyUsed=5\n[Resources/R/Consumer]\nCurrentlyUsed=5\n"
                        "[Resources/R/Consumers]\nCurrentlyUsed=5\n[Resources/R/Others/a]\nCurrentlyUsed=5\n"),
            100);
}

TEST(ResourceManager, ConsumersOfAResourceWithALongerNameDoNotCount) {
  const std::string settings = "[Resources/R2/Consumers/a]\nCurrentlyUsed=5\n[Resources/R2]\nTotalAvailable=7\n";
  StoreInMode store(Client::Local, settings);
  ResourceManager manager(store.GetClient());
  EXPECT_EQ(manager.GetAvailable("me", "R"), 100);
  EXPECT_EQ(manager.GetAvailable("me", "R2"), 2);
}

TEST(ResourceManager, FiguresThatAreNoNumbersAreTheirDefaults) {
  for (const char* garbage : {"", "many", "1.5", "0x10", "7 pieces", "99999999999", "--1"}) {
    const std::string value = garbage;
    EXPECT_EQ(AvailableIn("[Resources/R]\nTotalAvailable=" + value + "\n"), 100) << garbage;
    EXPECT_EQ(AvailableIn(Using("other", value)), 100) << garbage;
    EXPECT_EQ(AvailableIn("[Resources/R/Consumers/me]\nMaxAllowed=" + value + "\n"), 100) << garbage;
  }
}

TEST(ResourceManager, SumsSaturate) {
  constexpr int kHighest = std::numeric_limits<int>::max();
  constexpr int kLowest = std::numeric_limits<int>::min();
  const std::string highest = std::to_string(kHighest);
  const std::string lowest = std::to_string(kLowest);
  EXPECT_EQ(AvailableIn(Using("a", highest) + Using("b", highest) + Using("c", highest)), kLowest);
  EXPECT_EQ(AvailableIn(Using("a", highest) + Using("b", lowest)), 101);
  EXPECT_EQ(AvailableIn("[Resources/R]\nTotalAvailable=" + highest + "\n" + Using("a", lowest)), kHighest);
  EXPECT_EQ(AvailableIn("[Resources/R]\nTotalAvailable=" + lowest + "\n" + Using("a", highest)), kLowest);
}

TEST(ResourceManager, ATotalOfZeroMakesTheShareInfiniteOrNotANumber) {
  const std::string none = "[Resources/R]\nTotalAvailable=0\n";
  const auto share = [&](const std::string& others) {
    StoreInMode store(Client::Local, none + others);
    return ResourceManager(store.GetClient()).GetAvailablePercent("me", "R");
  };
  EXPECT_TRUE(std::isnan(share("")));
  EXPECT_EQ(share(Using("a", "-5")), std::numeric_limits<double>::infinity());
  EXPECT_EQ(share(Using("a", "5")), -std::numeric_limits<double>::infinity());
}

TEST(ResourceManager, SeveralResourcesAreBookedInOneStep) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Resources/R]\nTotalAvailable=10\n[Resources/S]\nTotalAvailable=20\n");
    ResourceManager manager(store.GetClient());
    EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(4, "R"), Share(0.5, "S")}));
    EXPECT_EQ(BookingOf("me", store, "R") + " " + BookingOf("me", store, "S"), "4 10");
    EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(5, "R")}));
    EXPECT_EQ(BookingOf("me", store, "R") + " " + BookingOf("me", store, "S"), "5 10");
    EXPECT_FALSE(manager.ReserveForConsumer("me", {Amount(6, "R"), Amount(21, "S")}));
    EXPECT_FALSE(manager.ReserveForConsumer("me", {Amount(21, "S"), Amount(6, "R")}));
    EXPECT_EQ(BookingOf("me", store, "R") + " " + BookingOf("me", store, "S"), "5 10");
  }
}

// Deliberate: each usage is held against what others use, and the last one for a resource is what is booked.
TEST(ResourceManager, OfTwoUsagesOfOneResourceTheLastIsBooked) {
  StoreInMode store(Client::Local, kShared);
  ResourceManager manager(store.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(20), Amount(3)}));
  EXPECT_EQ(BookingOf("me", store), "3");
}

TEST(ResourceManager, AnEmptyListOfUsagesIsBookedAtOnce) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kShared);
    ResourceManager manager(store.GetClient());
    EXPECT_TRUE(manager.ReserveForConsumer("me", {}));
    manager.GetTotal("R");
    store.Merge(Using("a", "31"));
    EXPECT_TRUE(manager.ReserveForConsumer("me", {}));
    EXPECT_EQ(manager.GetUsed("a", "R"), 31) << "the figures were outdated, so they were read again";
  }
}

TEST(ResourceManager, AResourceIsReadWhenItIsFirstNamedAndNotAgain) {
  for (const Mode mode : {Client::MultiThreaded, Client::SingleThreaded}) {
    AnsweringServer server(kShared, {}, mode);
    ResourceManager manager(server.GetClient());
    EXPECT_THAT(server.GetRequests(), ElementsAre());
    manager.GetTotal("R");
    server.served.store.MergeSettings(test::DocumentOf(Using("a", "31")), 0);
    EXPECT_EQ(manager.GetAvailable("me", "R"), 20);
    EXPECT_EQ(manager.GetUsed("a", "R"), 30);
    EXPECT_TRUE(manager.IsAuthorized("me", "R"));
    EXPECT_THAT(server.GetRequests(), ElementsAre("get delimited\nResources/R*\n.\n"));
  }
}

TEST(ResourceManager, RefreshReadsEveryKnownResourceAgainInAscendingOrder) {
  AnsweringServer server(kShared, {}, Client::SingleThreaded);
  ResourceManager manager(server.GetClient());
  manager.Refresh();
  manager.GetTotal("S");
  manager.GetTotal("R");
  server.served.store.MergeSettings(test::DocumentOf(Using("a", "31")), 0);
  manager.Refresh();
  EXPECT_EQ(manager.GetAvailable("me", "R"), 19);
  EXPECT_THAT(server.GetRequests(),
              ElementsAre("get delimited\nResources/S*\n.\n", "get delimited\nResources/R*\n.\n",
                          "get delimited\nResources/R*\n.\n", "get delimited\nResources/S*\n.\n"));
}

TEST(ResourceManager, RefreshForgetsGroupsThatAreGone) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kShared);
    ResourceManager manager(store.GetClient());
    manager.GetTotal("R");
    store.Erase("Resources/R/Consumers/a");
    EXPECT_EQ(manager.GetAvailable("me", "R"), 20);
    manager.Refresh();
    EXPECT_EQ(manager.GetAvailable("me", "R"), 50);
  }
}

TEST(ResourceManager, ABookingIsOneConditionalWriteAndItsFiguresAreKnownAfterwards) {
  AnsweringServer server("[Resources/R]\nTotalAvailable=10\n", {}, Client::SingleThreaded);
  ResourceManager manager(server.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(4)}));
  EXPECT_EQ(manager.GetUsed("me", "R"), 4);
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Amount(5)}));
  const std::string total = "[Resources/R]\nTotalAvailable=10\n";
  EXPECT_THAT(
      server.GetRequests(),
      ElementsAre("get delimited\nResources/R*\n.\n", "test-and-merge\n" + total + ".\n" + Using("me", "4") + ".\n",
                  "test-and-merge\n" + total + Using("me", "4") + ".\n" + Using("me", "5") + ".\n"));
}

TEST(ResourceManager, DestroyingItReleasesNothing) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kShared);
    auto manager = std::make_unique<ResourceManager>(store.GetClient());
    EXPECT_TRUE(manager->ReserveForConsumer("me", {Amount(20)}));
    manager.reset();
    EXPECT_EQ(BookingOf("me", store), "20");
  }
}

TEST(ResourceManager, AClientsFailurePassesThrough) {
  AnsweringServer server(kShared);
  ResourceManager manager(server.GetClient());
  server.Disconnect();
  EXPECT_THROW(manager.GetTotal("R"), osa::Exception);
  server.AwaitConnection();
  EXPECT_EQ(manager.GetTotal("R"), 100);
}

// Without its figures a booking would have no condition, and always hold.
TEST(ResourceManager, ARefreshThatFailsLeavesTheFiguresThatBookingsAreWorkedOutFrom) {
  AnsweringServer server(kShared);
  ResourceManager manager(server.GetClient());
  EXPECT_EQ(manager.GetAvailable("me", "R"), 20);
  server.Disconnect();
  EXPECT_THROW(manager.Refresh(), osa::Exception);
  server.AwaitConnection();
  EXPECT_FALSE(manager.ReserveForConsumer("me", {Amount(30)}));
  EXPECT_EQ(manager.GetAvailable("me", "R"), 20);
}

}  // namespace tavix::settings
