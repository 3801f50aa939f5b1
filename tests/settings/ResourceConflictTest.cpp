#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <string>

#include "tavix/settings/ResourceFigures.h"
#include "tavix/settings/ResourceManager.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/AnsweringServer.h"
#include "tests/support/LogOf.h"

namespace tavix::settings {

using test::AnsweringServer;
using test::Client;
using test::DocumentOf;
using test::Mode;
using test::StoreInMode;

namespace {

constexpr Mode kModesOverTcp[] = {Client::MultiThreaded, Client::SingleThreaded};

std::string Using(const std::string& consumer, int amount, const std::string& resource = "R") {
  return "[Resources/" + resource + "/Consumers/" + consumer + "]\nCurrentlyUsed=" + std::to_string(amount) + "\n";
}

const std::string kDeclared = "[Resources/R]\nTotalAvailable=100\n" + Using("me", 0) + Using("other", 0);

bool IsBooking(const std::string& request) {
  return request.rfind("test-and-merge\n", 0) == 0;
}

void Merge(AnsweringServer& server, const std::string& settings) {
  server.served.store.MergeSettings(DocumentOf(settings), 0);
}

}  // namespace

TEST(ResourceManager, OfTwoThatReadTheSameFiguresTheSecondBooksAgainstTheFirstOnesBooking) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kDeclared);
    ResourceManager mine(store.GetClient());
    ResourceManager others(store.GetClient());
    EXPECT_EQ(mine.GetAvailable("me", "R"), 100);
    EXPECT_EQ(others.GetAvailable("other", "R"), 100);
    EXPECT_TRUE(others.ReserveForConsumer("other", {{"R", false, 70, 0.0}}));
    EXPECT_FALSE(mine.ReserveForConsumer("me", {{"R", false, 31, 0.0}}));
    EXPECT_EQ(mine.GetAvailable("me", "R"), 30) << "the figures were read again";
    EXPECT_TRUE(mine.ReserveForConsumer("me", {{"R", false, 30, 0.0}}));
    EXPECT_EQ(store.Read("*"), "[Resources/R]\nTotalAvailable=100\n" + Using("me", 30) + Using("other", 70));
  }
}

TEST(ResourceManager, AnyChangedValueOfACachedGroupIsAConflict) {
  for (const char* change : {"[Resources/R]\nTotalAvailable=40\n", "[Resources/R]\nnote=new\n",
                             "[Resources/R/Consumers/me]\nMaxAllowed=40\n", "[Resources/R2]\nnote=new\n"}) {
    AnsweringServer server(
        kDeclared + "[Resources/R]\nnote=old\n[Resources/R/Consumers/me]\nMaxAllowed=90\n[Resources/R2]\nnote=old\n");
    ResourceManager manager(server.GetClient());
    manager.GetTotal("R");
    Merge(server, change);
    EXPECT_TRUE(manager.ReserveForConsumer("me", {{"R", false, 40, 0.0}}));
    EXPECT_EQ(server.GetRequests().size(), 4u) << change;  // read, refused, read, booked
  }
}

TEST(ResourceManager, AGroupThatWasErasedIsAConflict) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kDeclared + Using("other", 60));
    ResourceManager manager(store.GetClient());
    EXPECT_EQ(manager.GetAvailable("me", "R"), 40);
    store.Erase("Resources/R/Consumers/other");
    EXPECT_TRUE(manager.ReserveForConsumer("me", {{"R", true, 0, 0.3}}));
    EXPECT_EQ(manager.GetAvailable("me", "R"), 100);
  }
}

TEST(ResourceManager, EachConflictHasTheFiguresReadAgainUntilTheBookingIsMade) {
  for (const Mode mode : kModesOverTcp) {
    std::atomic<int> conflicts{0};
    AnsweringServer server(
        kDeclared,
        [&](AnsweringServer& self, const std::string& request) {
          if (IsBooking(request) && conflicts < 3) Merge(self, Using("other", 10 * ++conflicts));
        },
        mode);
    ResourceManager manager(server.GetClient());
    EXPECT_TRUE(manager.ReserveForConsumer("me", {{"R", false, 70, 0.0}}));
    EXPECT_EQ(server.GetRequests().size(), 8u);  // four times read and tried
    EXPECT_EQ(test::AllSettingsOf(server.served.store),
              "[Resources/R]\nTotalAvailable=100\n" + Using("me", 70) + Using("other", 30));
  }
}

TEST(ResourceManager, ConflictsEndWhenACheckFails) {
  for (const Mode mode : kModesOverTcp) {
    std::atomic<int> conflicts{0};
    AnsweringServer server(
        kDeclared,
        [&](AnsweringServer& self, const std::string& request) {
          if (IsBooking(request)) Merge(self, Using("other", 10 * ++conflicts));
        },
        mode);
    ResourceManager manager(server.GetClient());
    EXPECT_FALSE(manager.ReserveForConsumer("me", {{"R", false, 70, 0.0}}));
    EXPECT_EQ(conflicts, 4);
    EXPECT_EQ(manager.GetUsed("me", "R"), 0);
  }
}

TEST(ResourceManager, ThereIsNoLimitToRetries) {
  std::atomic<int> conflicts{0};
  AnsweringServer server(kDeclared + "[Resources/R]\nround=0\n",
                         [&](AnsweringServer& self, const std::string& request) {
                           if (!IsBooking(request) || conflicts == 100) return;
                           Merge(self, "[Resources/R]\nround=" + std::to_string(++conflicts) + "\n");
                         });
  ResourceManager manager(server.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {{"R", true, 0, 0.7}}));
  EXPECT_EQ(server.GetRequests().size(), 2 * 101u);
}

// No figure changes: that is no conflict, and would never end.
TEST(ResourceManager, ABookingThatAFullStoreRefusesEnds) {
  for (const Mode mode : kModesOverTcp) {
    AnsweringServer server("[Resources/R]\nTotalAvailable=100\n", {}, mode);
    server.served.store.SetMaxBytes(server.served.store.GetApproximateBytes());
    ResourceManager manager(server.GetClient());
    bool isBooked = true;
    const auto log = test::LogOf([&] { isBooked = manager.ReserveForConsumer("me", {{"R", false, 40, 0.0}}); });
    EXPECT_FALSE(isBooked);
    EXPECT_EQ(server.GetRequests().size(), 2U * BookingAttempts::kMaxRefusals) << "each attempt reads and tries";
    EXPECT_THAT(log, testing::Contains("ERROR ResourceManager: The store refused 50 times to book 'R' for consumer "
                                       "'me', and no figure had changed: it may be full"));
    server.served.store.SetMaxBytes(std::numeric_limits<size_t>::max());
    EXPECT_TRUE(manager.ReserveForConsumer("me", {{"R", false, 40, 0.0}}));
  }
}

// The other one takes 60 of R right before each request of a booking in turn: two readings and the write, that are done
// again when the write finds the figures changed.
TEST(ResourceManager, AChangeAtAnyStepOfABookingCountsUnlessTheBookingCameFirst) {
  const std::pair<size_t, bool> cases[] = {{1, false}, {2, false}, {3, false}, {4, true}};
  for (const auto& [step, booked] : cases) {
    std::atomic<size_t> requests{0};
    AnsweringServer server(kDeclared + Using("me", 0, "Q"), [&, at = step](AnsweringServer& self, const std::string&) {
      if (++requests == at) Merge(self, Using("other", 60));
    });
    ResourceManager manager(server.GetClient());
    EXPECT_EQ(manager.ReserveForConsumer("me", {{"R", false, 50, 0.0}, {"Q", false, 1, 0.0}}), booked) << step;
    EXPECT_EQ(server.served.Serve("get delimited\nResources/R/Consumers/me\n.\n"),
              "data\n" + Using("me", booked ? 50 : 0) + ".\n");
  }
}

// Deliberate: a consumer that stands nowhere when the figures are read can't be seen to change. Declaring every
// consumer closes the gap, as the test after this one shows.
TEST(ResourceManager, FirstBookingsOfConsumersThatNobodyDeclaredMayExceedTheTotal) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Resources/R]\nTotalAvailable=100\n");
    ResourceManager mine(store.GetClient());
    ResourceManager others(store.GetClient());
    mine.GetTotal("R");
    EXPECT_TRUE(others.ReserveForConsumer("other", {{"R", false, 100, 0.0}}));
    EXPECT_TRUE(mine.ReserveForConsumer("me", {{"R", false, 100, 0.0}}));
    mine.Refresh();
    EXPECT_EQ(mine.GetAvailable("me", "R"), 0);
  }
}

TEST(ResourceManager, FirstBookingsOfDeclaredConsumersNeverExceedTheTotal) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, kDeclared);
    ResourceManager mine(store.GetClient());
    ResourceManager others(store.GetClient());
    mine.GetTotal("R");
    EXPECT_TRUE(others.ReserveForConsumer("other", {{"R", false, 100, 0.0}}));
    EXPECT_FALSE(mine.ReserveForConsumer("me", {{"R", false, 100, 0.0}}));
  }
}

}  // namespace tavix::settings
