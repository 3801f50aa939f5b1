#include "programs/bridge/engines/EventQueue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <string>

#include "tests/support/BackgroundCall.h"

namespace tavix::test {

using bridge::EngineEvent;
using bridge::EventQueue;
using bridge::Item;
using bridge::Synced;

namespace {

bool IsReadable(const EventQueue& queue) {
  pollfd look{queue.GetDescriptor(), POLLIN, 0};
  return poll(&look, 1, 0) == 1;
}

Item MakeItem(const std::string& key, std::size_t size) {
  return Item{key, std::string(size, 'x'), 1};
}

void Fill(EventQueue& queue) {
  for (std::size_t count = 0; count < EventQueue::kMaxEvents; ++count) ASSERT_TRUE(queue.Push(Synced{count, false}));
}

}  // namespace

TEST(EventQueue, GivesEventsInTheirOrder) {
  EventQueue queue;
  queue.Open();
  ASSERT_TRUE(queue.Push(MakeItem("first", 1)));
  ASSERT_TRUE(queue.Push(MakeItem("second", 1)));

  EXPECT_EQ(std::get<Item>(*queue.TryPop()).key, "first");
  EXPECT_EQ(std::get<Item>(*queue.TryPop()).key, "second");
  EXPECT_FALSE(queue.TryPop());
}

TEST(EventQueue, IsReadableWhileItHoldsEvents) {
  EventQueue queue;
  queue.Open();
  EXPECT_FALSE(IsReadable(queue));

  ASSERT_TRUE(queue.Push(Synced{1, false}));
  ASSERT_TRUE(queue.Push(Synced{2, false}));
  queue.TryPop();
  EXPECT_TRUE(IsReadable(queue));

  queue.TryPop();
  EXPECT_FALSE(IsReadable(queue));
}

TEST(EventQueue, HasThePusherOfOneEventTooManyWait) {
  EventQueue queue;
  queue.Open();
  Fill(queue);

  BackgroundCall push([&] { EXPECT_TRUE(queue.Push(Synced{1024, false})); });
  push.AwaitBlocked();
  EXPECT_FALSE(push.HasEnded());
  EXPECT_EQ(queue.GetCount(), EventQueue::kMaxEvents);

  EXPECT_EQ(std::get<Synced>(*queue.TryPop()).version, 0u);
  push.Join();
  EXPECT_EQ(queue.GetCount(), EventQueue::kMaxEvents);
}

TEST(EventQueue, HasThePusherOfTooManyBytesWait) {
  EventQueue queue;
  queue.Open();
  ASSERT_TRUE(queue.Push(MakeItem("large", EventQueue::kMaxBytes)));

  BackgroundCall push([&] { EXPECT_TRUE(queue.Push(MakeItem("small", 1))); });
  push.AwaitBlocked();
  EXPECT_EQ(queue.GetCount(), 1u);

  queue.TryPop();
  push.Join();
  EXPECT_EQ(queue.GetCount(), 1u);
}

TEST(EventQueue, TakesOneEventThatIsLargerThanItsBound) {
  EventQueue queue;
  queue.Open();
  EXPECT_TRUE(queue.Push(MakeItem("huge", 2 * EventQueue::kMaxBytes)));
}

TEST(EventQueue, ReleasesThePusherThatWaitsWhenItIsClosed) {
  EventQueue queue;
  queue.Open();
  Fill(queue);
  BackgroundCall push([&] { EXPECT_FALSE(queue.Push(Synced{1024, false})); });
  push.AwaitBlocked();

  queue.Close();
  push.Join();
}

TEST(EventQueue, DropsItsEventsAndTakesNoneWhenItIsClosed) {
  EventQueue queue;
  queue.Open();
  ASSERT_TRUE(queue.Push(Synced{1, false}));
  queue.Close();

  EXPECT_FALSE(queue.TryPop());
  EXPECT_FALSE(IsReadable(queue));
  EXPECT_FALSE(queue.Push(Synced{2, false}));
  queue.Open();
  EXPECT_TRUE(queue.Push(Synced{3, false}));
}

}  // namespace tavix::test
