#include "tavix/settings/ResourceReserver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>

#include "tavix/osa/Exception.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/AnsweringServer.h"

namespace tavix::settings {

using test::AnsweringServer;
using test::Client;
using test::DocumentOf;
using test::Mode;
using test::StoreInMode;
using testing::ElementsAre;

namespace {

constexpr char kMine[] = "[Resources/R/Consumers/me]CurrentlyUsed";
constexpr char kReading[] = "get delimited\nResources/R*\n.\n";

}  // namespace

TEST(ResourceReserver, TellsTheFiguresOfItsConsumerAndResource) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode,
                      "[Resources/R]\nTotalAvailable=80\n[Resources/R/Consumers/a]\nCurrentlyUsed=20\n"
                      "[Resources/R/Consumers/me]\nCurrentlyUsed=10\nMaxAllowed=40\n");
    const ResourceReserver reserver(store.GetClient(), "R", "me");
    EXPECT_EQ(reserver.GetTotalResources(), 80);
    EXPECT_EQ(reserver.GetCurrentUsage(), 10);
    EXPECT_EQ(reserver.GetAvailableResources(), 40);
    EXPECT_EQ(reserver.GetAvailableResourcesPercent(), 0.5);
    EXPECT_TRUE(reserver.IsAuthorized());
  }
}

TEST(ResourceReserver, BooksAnAmountInPlaceOfTheOneBefore) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Resources/R/Consumers/a]\nCurrentlyUsed=30\n");
    ResourceReserver reserver(store.GetClient(), "R", "me");
    EXPECT_TRUE(reserver.TrySetUsage(70));
    EXPECT_TRUE(reserver.TrySetUsage(20));
    EXPECT_FALSE(reserver.TrySetUsage(71));
    EXPECT_FALSE(reserver.TrySetUsage(-1));
    EXPECT_EQ(store.GetClient()->GetValue(kMine), "20");
    EXPECT_EQ(reserver.GetCurrentUsage(), 20);
  }
}

TEST(ResourceReserver, TheWholeOfAnUnusedResourceCanBeBookedAsAShare) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode);
    ResourceReserver reserver(store.GetClient(), "R", "me");
    EXPECT_TRUE(reserver.TrySetUsagePercent(1.0));
    EXPECT_EQ(store.GetClient()->GetValue(kMine), "100");
    EXPECT_FALSE(reserver.TrySetUsagePercent(1.011));
    EXPECT_FALSE(reserver.TrySetUsagePercent(100)) << "a share, not a number of percent";
    EXPECT_TRUE(reserver.TrySetUsagePercent(0.25));
    EXPECT_EQ(store.GetClient()->GetValue(kMine), "25");
  }
}

TEST(ResourceReserver, ZeroIsAlwaysBooked) {
  for (const Mode mode : test::kAllModes) {
    for (const char* allowed :
         {"", "[Resources/R/AllowedConsumers]\n1=me\n", "[Resources/R/AllowedConsumers]\n1=a\n"}) {
      StoreInMode store(mode, std::string(allowed) +
                                  "[Resources/R/Consumers/a]\nCurrentlyUsed=200\n"
                                  "[Resources/R/Consumers/me]\nCurrentlyUsed=10\nMaxAllowed=-1\n");
      ResourceReserver reserver(store.GetClient(), "R", "me");
      EXPECT_TRUE(reserver.TrySetUsage(0));
      EXPECT_EQ(store.GetClient()->GetValue(kMine), "0");
    }
  }
}

TEST(ResourceReserver, IsMadeWithoutReading) {
  AnsweringServer server("", {}, Client::SingleThreaded);
  ResourceReserver reserver(server.GetClient(), "R", "me");
  EXPECT_THAT(server.GetRequests(), ElementsAre());
}

TEST(ResourceReserver, EveryCallButIsAuthorizedReadsTheFiguresOnceAfresh) {
  AnsweringServer server("[Resources/R]\nTotalAvailable=1\n", {}, Client::SingleThreaded);
  ResourceReserver reserver(server.GetClient(), "R", "me");
  const auto changeTo = [&](int total) {
    server.served.store.MergeSettings(DocumentOf("[Resources/R]\nTotalAvailable=" + std::to_string(total) + "\n"), 0);
  };
  EXPECT_EQ(reserver.GetTotalResources(), 1);
  changeTo(2);
  EXPECT_EQ(reserver.GetTotalResources(), 2);
  changeTo(3);
  EXPECT_EQ(reserver.GetAvailableResources(), 3);
  changeTo(4);
  EXPECT_EQ(reserver.GetAvailableResourcesPercent(), 1.0);
  EXPECT_EQ(reserver.GetCurrentUsage(), 0);
  EXPECT_THAT(server.GetRequests(), ElementsAre(kReading, kReading, kReading, kReading, kReading));
}

TEST(ResourceReserver, ABookingReadsTheFiguresAfreshFirst) {
  const std::string booked = "[Resources/R/Consumers/me]\nCurrentlyUsed=";
  AnsweringServer server(booked + "6\n", {}, Client::SingleThreaded);
  ResourceReserver reserver(server.GetClient(), "R", "me");
  EXPECT_TRUE(reserver.IsAuthorized());
  EXPECT_TRUE(reserver.TrySetUsage(7));
  EXPECT_TRUE(reserver.TrySetUsagePercent(0.08));
  EXPECT_THAT(server.GetRequests(),
              ElementsAre(kReading, kReading, "test-and-merge\n" + booked + "6\n.\n" + booked + "7\n.\n", kReading,
                          "test-and-merge\n" + booked + "7\n.\n" + booked + "8\n.\n"));
}

TEST(ResourceReserver, WhetherItIsAuthorisedIsAnsweredFromTheFiguresReadLast) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Resources/R/AllowedConsumers]\n1=me\n");
    const ResourceReserver reserver(store.GetClient(), "R", "me");
    EXPECT_TRUE(reserver.IsAuthorized());
    store.Overwrite("Resources/R/AllowedConsumers", "[Resources/R/AllowedConsumers]\n1=other\n");
    EXPECT_TRUE(reserver.IsAuthorized());
    EXPECT_EQ(reserver.GetCurrentUsage(), 0);
    EXPECT_FALSE(reserver.IsAuthorized());
  }
}

TEST(ResourceReserver, WhetherItIsAuthorisedIsReadOnceWhenNothingWasReadBefore) {
  AnsweringServer server("", {}, Client::SingleThreaded);
  const ResourceReserver reserver(server.GetClient(), "R", "me");
  EXPECT_TRUE(reserver.IsAuthorized());
  EXPECT_TRUE(reserver.IsAuthorized());
  EXPECT_THAT(server.GetRequests(), ElementsAre(kReading));
}

TEST(ResourceReserver, DestroyingItLeavesItsBooking) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode);
    auto reserver = std::make_unique<ResourceReserver>(store.GetClient(), "R", "me");
    EXPECT_TRUE(reserver->TrySetUsage(42));
    reserver.reset();
    EXPECT_EQ(store.GetClient()->GetValue(kMine), "42");
  }
}

TEST(ResourceReserver, AClientsFailurePassesThroughAndTheNextCallReadsAgain) {
  AnsweringServer server("[Resources/R]\nTotalAvailable=7\n");
  ResourceReserver reserver(server.GetClient(), "R", "me");
  EXPECT_EQ(reserver.GetTotalResources(), 7);
  server.Disconnect();
  EXPECT_THROW(reserver.GetTotalResources(), osa::Exception);
  server.AwaitConnection();
  EXPECT_EQ(reserver.GetTotalResources(), 7);
}

}  // namespace tavix::settings
