#include "tavix/settings/Subscription.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tests/settings/BusyWriter.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/RecordingCallback.h"

namespace tavix::settings {

using test::BackgroundCall;
using test::Change;
using test::Client;
using test::Mode;
using test::RecordingCallback;
using test::StoreInMode;
using testing::ElementsAre;

TEST(Subscription, PassesChangesOn) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    RecordingCallback target;
    Subscription subscription(store.GetClient(), &target);
    store.Merge("[A]\nx=1\n");
    subscription.Subscribe({"A", "B*"});
    store.Merge("[A]\nx=2\n[B1]\nx=2\n[C]\nx=2\n");
    ASSERT_EQ(target.GetChanges().size(), 1u);
    EXPECT_EQ(target.GetChanges()[0].groups, (std::set<std::string>{"A", "B1"}));
  }
}

TEST(Subscription, SubscribingTwiceAddsToIt) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    RecordingCallback target;
    Subscription subscription(store.GetClient(), &target);
    subscription.Subscribe({"A"});
    subscription.Subscribe({"B"});
    store.Merge("[A]\nx=1\n[B]\nx=1\n");
    EXPECT_THAT(target.GetChanges(), ElementsAre(Change{{"A", "B"}, "[A]\nx=1\n[B]\nx=1\n"}));
  }
}

TEST(Subscription, EndsWhenItIsDestroyed) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    RecordingCallback target;
    auto subscription = std::make_unique<Subscription>(store.GetClient(), &target);
    subscription->Subscribe({"A"});
    store.Merge("[A]\nx=1\n");
    subscription.reset();
    store.Merge("[A]\nx=2\n");
    EXPECT_THAT(target.GetChanges(), ElementsAre(Change{{"A"}, "[A]\nx=1\n"}));
  }
}

TEST(Subscription, EndsWithoutEverHavingBegun) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode);
    RecordingCallback target;
    auto subscription = std::make_unique<Subscription>(store.GetClient(), &target);
    subscription.reset();
    store.Merge("[A]\nx=1\n");
    EXPECT_THAT(target.GetChanges(), ElementsAre());
  }
}

TEST(Subscription, DestroyingOneLeavesTheOthersOfTheSameTarget) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    RecordingCallback target;
    auto gone = std::make_unique<Subscription>(store.GetClient(), &target);
    Subscription left(store.GetClient(), &target);
    gone->Subscribe({"A"});
    left.Subscribe({"A"});
    gone.reset();
    store.Merge("[A]\nx=1\n");
    EXPECT_EQ(target.GetChanges().size(), 1u);
  }
}

TEST(Subscription, TheClientsRefusalPassesThrough) {
  for (const Mode mode : test::kSingleThreadedModes) {
    StoreInMode store(mode);
    RecordingCallback target;
    Subscription subscription(store.GetClient(), &target);
    EXPECT_THAT(
        [&] { subscription.Subscribe({"A"}); },
        testing::ThrowsMessage<osa::Exception>("TavixSettingsClient::Subscribe not supported in single threaded mode"));
  }
}

TEST(Subscription, DestroyingItWaitsForACallThatIsUnderWay) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    std::promise<void> called;
    std::promise<void> mayReturn;
    RecordingCallback target([&] {
      called.set_value();
      mayReturn.get_future().wait();
    });
    auto subscription = std::make_unique<Subscription>(store.GetClient(), &target);
    subscription->Subscribe({"A"});
    BackgroundCall change([&] { store.Merge("[A]\nx=1\n"); });
    called.get_future().wait();
    BackgroundCall destruction([&] { subscription.reset(); });
    destruction.AwaitBlocked();
    EXPECT_FALSE(destruction.HasEnded());
    mayReturn.set_value();
  }
}

TEST(Subscription, MayBeDestroyedByItsOwnTarget) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    std::unique_ptr<Subscription> subscription;
    RecordingCallback target([&] { subscription.reset(); });
    subscription = std::make_unique<Subscription>(store.GetClient(), &target);
    subscription->Subscribe({"A"});
    store.Merge("[A]\nx=1\n");
    EXPECT_EQ(subscription, nullptr);
    store.Merge("[A]\nx=2\n");
    EXPECT_EQ(target.GetChanges().size(), 1u);
  }
}

TEST(Subscription, OthersBeginAndEndAfterSomeWereDestroyedFromACallback) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    RecordingCallback target;
    std::vector<std::unique_ptr<Subscription>> gone;
    for (int i = 0; i < 3; ++i) {
      gone.push_back(std::make_unique<Subscription>(store.GetClient(), &target));
      gone.back()->Subscribe({"A"});
    }
    RecordingCallback destroyer([&] { gone.clear(); });
    Subscription destroying(store.GetClient(), &destroyer);
    destroying.Subscribe({"B"});
    store.Merge("[B]\nx=1\n");
    Subscription later(store.GetClient(), &target);
    later.Subscribe({"A"});
    store.Merge("[A]\nx=1\n");
    EXPECT_EQ(target.GetChanges().size(), 1u);
  }
}

TEST(Subscription, MayBeginAndEndWhileAWriterWritesAtFullSpeed) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode);
    BackgroundCall writer([&] { test::ChangeAtFullSpeed(*store.GetClient()); });
    while (!writer.HasEnded()) {
      RecordingCallback target;
      Subscription subscription(store.GetClient(), &target);
      subscription.Subscribe({"Busy/*"});
      store.GetClient()->GetValue("[Busy/0]key0");
    }
    writer.Join();
  }
}

TEST(Subscription, OneThatIsDestroyedFromACallbackSaysThatItsSmallCallbackStays) {
  StoreInMode store(Client::Local);
  std::unique_ptr<Subscription> subscription;
  RecordingCallback target([&] { subscription.reset(); });
  subscription = std::make_unique<Subscription>(store.GetClient(), &target);
  subscription->Subscribe({"A"});
  test::CapturedLog log;
  store.Merge("[A]\nx=1\n");
  EXPECT_THAT(log.GetMessages(),
              testing::Contains(testing::StartsWith("INFO Subscription: A callback stays subscribed: ")));
}

}  // namespace tavix::settings
