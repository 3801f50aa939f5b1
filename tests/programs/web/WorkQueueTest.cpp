#include "programs/web/daemon/WorkQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Patience.h"

namespace tavix::test {

using testing::ElementsAre;
using testing::IsEmpty;
using web::Response;
using web::WorkQueue;

namespace {

constexpr size_t kMaxWaiting = 40;

// A queue whose only thread begins when it may, so that all that is added before waits.
class WebWorkQueue : public testing::Test {
 protected:
  WebWorkQueue() {
    EXPECT_TRUE(_queue.Add(++_last, [this](size_t) {
      _isBegun.set_value();
      _mayGoOn.get_future().wait();
      return Response{204, {}, ""};
    }));
    _isBegun.get_future().wait();
  }

  ~WebWorkQueue() override {
    if (!_isReleased) Release();
  }

  WorkQueue::Number Add(const std::string& body, std::optional<std::string> reading = std::nullopt) {
    std::optional<WorkQueue::Reading> read;
    if (reading) read.emplace(WorkQueue::Reading{*reading, {}});
    if (!_queue.Add(
            ++_last,
            [body](size_t) {
              return Response{200, {}, body};
            },
            read))
      return 0;
    return _last;
  }

  void Release() {
    _isReleased = true;
    _mayGoOn.set_value();
  }

  // By their numbers, once there are so many.
  std::map<WorkQueue::Number, std::string> AwaitDone(size_t count) {
    std::map<WorkQueue::Number, std::string> done;
    while (done.size() < count) {
      for (WorkQueue::Done& one : _queue.TakeDone()) done[one.number] = one.response.body;
      std::unique_lock<std::mutex> lock(_mutex);
      if (done.size() < count && !_changed.wait_for(lock, kPatience, [this] { return std::exchange(_isWoken, false); }))
        throw std::runtime_error("Too little is done");
    }
    return done;
  }

  std::vector<std::vector<std::string>> prepared;  // looked at behind AwaitDone

 private:
  void Wake() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _isWoken = true;
    _changed.notify_one();
  }

  void Prepare(const std::vector<WorkQueue::Reading>& readings) {
    std::vector<std::string> names;
    for (const WorkQueue::Reading& reading : readings) names.push_back(reading.name);
    prepared.push_back(names);
  }

  std::mutex _mutex;
  std::condition_variable _changed;
  bool _isWoken = false;
  bool _isReleased = false;
  std::promise<void> _isBegun;
  std::promise<void> _mayGoOn;
  WorkQueue::Number _last = 0;

 protected:
  WorkQueue _queue{"Work", 1, kMaxWaiting, [this] { Wake(); },
                   [this](size_t, const std::vector<WorkQueue::Reading>& readings) { Prepare(readings); }};
};

}  // namespace

TEST_F(WebWorkQueue, BeginsTogetherWhatWaitsAndOnlyReads) {
  const auto first = Add("1", "a");
  const auto write = Add("2");
  const auto second = Add("3", "b");
  Release();
  const auto done = AwaitDone(4);
  EXPECT_EQ(done.at(first), "1");
  EXPECT_EQ(done.at(write), "2");
  EXPECT_EQ(done.at(second), "3");
  EXPECT_THAT(prepared, ElementsAre(IsEmpty(), ElementsAre("a", "b"), IsEmpty()));
}

TEST_F(WebWorkQueue, BeginsNoMoreTogetherThanItsBound) {
  for (int i = 0; i < 40; ++i) EXPECT_NE(Add("", std::to_string(i)), 0u);
  EXPECT_EQ(Add("", "one more"), 0u);
  Release();
  AwaitDone(41);
  ASSERT_EQ(prepared.size(), 3u);
  EXPECT_EQ(prepared[1].size(), 32u);
  EXPECT_EQ(prepared[2].size(), 8u);
}

TEST_F(WebWorkQueue, DropsWhatIsCancelled) {
  const auto waiting = Add("1", "a");
  const auto wanted = Add("2", "b");
  EXPECT_TRUE(_queue.CancelWaiting(waiting));
  EXPECT_FALSE(_queue.CancelWaiting(waiting));
  EXPECT_EQ(_queue.Cancel(1), WorkQueue::Cancelled::kRunning);
  EXPECT_EQ(_queue.Cancel(1), WorkQueue::Cancelled::kUnknown);
  Release();
  const auto done = AwaitDone(1);
  EXPECT_EQ(done.count(waiting), 0u);
  EXPECT_EQ(done.at(wanted), "2");
}

// The others of a batch wait still: each may be given up alone, and they count against the bound.
TEST_F(WebWorkQueue, LetsWaitingEndOfWhatIsBegunTogether) {
  std::promise<void> isBegun;
  std::promise<void> mayGoOn;
  constexpr WorkQueue::Number kSlow = 1000;
  ASSERT_TRUE(_queue.Add(
      kSlow,
      [&](size_t) {
        isBegun.set_value();
        mayGoOn.get_future().wait();
        return Response{200, {}, "slow"};
      },
      WorkQueue::Reading{"a", {}}));
  const auto other = Add("1", "b");
  const auto wanted = Add("2", "c");
  Release();
  isBegun.get_future().wait();
  for (size_t i = 2; i < kMaxWaiting; ++i) EXPECT_NE(Add("more"), 0u);
  EXPECT_EQ(Add("too much"), 0u);
  EXPECT_TRUE(_queue.CancelWaiting(other));
  EXPECT_NE(Add("in its place"), 0u);
  mayGoOn.set_value();
  const auto done = AwaitDone(kMaxWaiting + 2);
  EXPECT_EQ(done.count(other), 0u);
  EXPECT_EQ(done.at(kSlow), "slow");
  EXPECT_EQ(done.at(wanted), "2");
}

}  // namespace tavix::test
