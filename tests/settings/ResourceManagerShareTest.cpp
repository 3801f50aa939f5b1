#include "tavix/settings/ResourceManager.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

#include "tests/settings/ResourceManagerTest.h"
#include "tests/settings/StoreInMode.h"

namespace tavix::settings {

using test::BookingOf;
using test::Client;
using test::kShared;
using test::Share;
using test::StoreInMode;
using test::Using;

TEST(ResourceManager, AShareIsRoundedUpUnlessItMissesOnlyByThat) {
  const std::pair<double, std::string> cases[] = {{0.0, "0"}, {0.1, "1"},   {0.101, "2"}, {0.25, "3"},
                                                  {0.3, "3"}, {0.301, "3"}, {0.302, ""},  {0.333, ""},
                                                  {0.4, ""},  {1.0, ""},    {0.001, "1"}};
  for (const auto& [fraction, booked] : cases) {
    StoreInMode store(Client::Local, "[Resources/R]\nTotalAvailable=10\n" + Using("other", "7"));
    ResourceManager manager(store.GetClient());
    EXPECT_EQ(manager.ReserveForConsumer("me", {Share(fraction)}), !booked.empty()) << fraction;
    EXPECT_EQ(BookingOf("me", store), booked) << fraction;
  }
}

TEST(ResourceManager, AShareOf333ThousandthsOfTenAsksForFour) {
  StoreInMode store(Client::Local, "[Resources/R]\nTotalAvailable=10\n" + Using("other", "6"));
  ResourceManager manager(store.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Share(0.333)}));
  EXPECT_EQ(BookingOf("me", store), "4");
}

// Deliberate: the product is rounded up as the machine computes it, and 0.14 * 100 is a little more than 14.
TEST(ResourceManager, AShareIsRoundedUpAsTheMachineComputesIt) {
  StoreInMode store(Client::Local);
  ResourceManager manager(store.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Share(0.14)}));
  EXPECT_EQ(BookingOf("me", store), "15");
}

TEST(ResourceManager, AShareThatMissesByLessThanItsRoundingOfNothingBooksNothing) {
  StoreInMode store(Client::Local, "[Resources/R]\nTotalAvailable=10\n" + Using("other", "10"));
  ResourceManager manager(store.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Share(0.0005)}));
  EXPECT_EQ(BookingOf("me", store), "0");
}

TEST(ResourceManager, AShareThatIsNoShareIsRefused) {
  const double infinite = std::numeric_limits<double>::infinity();
  StoreInMode store(Client::Local, kShared);
  ResourceManager manager(store.GetClient());
  for (const double fraction : {std::nan(""), infinite, -infinite, 1e300, -1e300, 1e8, -1e8, -1.0, -0.01, 1.01})
    EXPECT_FALSE(manager.ReserveForConsumer("me", {Share(fraction)})) << fraction;
  EXPECT_EQ(store.Read("*"), kShared);
}

// Deliberate: a share is rounded up, so this one is 0.
TEST(ResourceManager, ANegativeShareOfLessThanOneUnitBooksNothing) {
  StoreInMode store(Client::Local, kShared);
  ResourceManager manager(store.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Share(-0.001)}));
  EXPECT_EQ(BookingOf("me", store), "0");
}

TEST(ResourceManager, AShareOfTheLargestTotalFits) {
  StoreInMode store(Client::Local, "[Resources/R]\nTotalAvailable=2147483647\n");
  ResourceManager manager(store.GetClient());
  EXPECT_TRUE(manager.ReserveForConsumer("me", {Share(1.0)}));
  EXPECT_EQ(BookingOf("me", store), "2147483647");
}

}  // namespace tavix::settings
