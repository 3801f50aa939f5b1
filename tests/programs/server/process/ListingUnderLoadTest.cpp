#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Durations.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

namespace {

constexpr size_t kWriters = 4;
constexpr size_t kListers = 2;
constexpr char kListing[] = "Subscribed groups\n-----------------\nBusy*\n\n";
constexpr char kNotice[] = "async change\n";

// What one client does again and again, and how long each time took.
struct Activity {
  Durations durations;
  size_t notices = 0;
};

using Clock = std::chrono::steady_clock;

// Changes a group of its own and sees that it did.
void Change(unsigned short port, size_t number, Clock::time_point end, Activity& activity) {
  ProtocolClient client(port);
  const std::string group = "Busy" + std::to_string(number);
  do {
    const std::string state = "[" + group + "]\nn=" + std::to_string(activity.durations.Count()) + "\n.\n";
    activity.durations.Measure([&] {
      client.Send("merge\n" + state);
      ASSERT_EQ(client.Get(group + "\n"), "data\n" + state);
    });
  } while (Clock::now() < end);
}

// Asks for the listing while it is told of every change.
void List(ProtocolClient& client, Clock::time_point end, Activity& activity) {
  do {
    std::string received;
    activity.durations.Measure([&] {
      client.Send("info subscribed\n");
      received = client.ReadUntil(kListing);
    });
    activity.notices += CountOf(kNotice, received);
  } while (Clock::now() < end);
}

}  // namespace

// The two take their locks in opposite orders: a listing its own output first, a notice all listings' sources first.
TEST(ListingUnderLoad, NeitherListingsNorNoticesNorWritersWaitForEachOther) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const unsigned short port = daemon.GetPort();
  std::list<ProtocolClient> clients;
  while (clients.size() < kListers) {
    clients.emplace_back(port).Send("subscribe\nBusy*\n.\n");
    clients.back().AwaitHandled();
  }
  const auto end = Clock::now() + std::chrono::seconds(IsLongRun() ? 20 : 2);
  std::vector<Activity> activities(kWriters + kListers);
  std::list<BackgroundCall> calls;
  for (size_t i = 0; i < kWriters; ++i) calls.emplace_back([&, i] { Change(port, i, end, activities[i]); });
  size_t next = kWriters;
  for (ProtocolClient& client : clients) {
    Activity& activity = activities[next++];
    calls.emplace_back([&] { List(client, end, activity); });
  }
  for (BackgroundCall& call : calls) call.Join();

  size_t changes = 0;
  for (size_t i = 0; i < kWriters; ++i) changes += activities[i].durations.Count();
  next = kWriters;
  for (ProtocolClient& client : clients) {
    client.Send("get delimited\n.\n");
    EXPECT_EQ(activities[next++].notices + CountOf(kNotice, client.ReadUntil("data\n.\n")), changes);
  }
  double longest = 0;
  for (const Activity& activity : activities) longest = std::max(longest, activity.durations.Quantile(1));
  std::printf("%zu changes, %zu listings, the longest pause %.1f ms\n", changes,
              activities[kWriters].durations.Count() + activities.back().durations.Count(), longest);
  if (IsLongRun()) {
    EXPECT_LT(longest, 1000);
  }
}

}  // namespace tavix::test
