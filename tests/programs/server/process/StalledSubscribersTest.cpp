#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <list>
#include <thread>

#include "tests/programs/server/Daemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Durations.h"
#include "tests/support/EchoFloor.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/ReaderProcess.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

namespace {

constexpr size_t kMegabyte = 1024 * 1024;
constexpr size_t kStopped = 50;
constexpr size_t kLive = 10;
constexpr int kMaxChanges = 200'000;
constexpr char kCut[] = "connection cut: too much unread for too long, bytes ";

// Every state has the same length.
std::string State(int number) {
  return "[Load]\nn=" + std::to_string(1'000'000 + number) + "\nv=" + std::string(1000, 'v') + "\n";
}

std::string NoticeOf(int number) {
  return "async change\nLoad\n.\n" + State(number) + ".\n";
}

// receiveBuffer: as ProtocolClient takes it.
ProtocolClient Subscribe(unsigned short port, int receiveBuffer = 0) {
  ProtocolClient client(port, receiveBuffer);
  client.Send("subscribe\nLoad\n.\n");
  client.AwaitHandled();
  return client;
}

// Ten subscribers that read whatever comes, and want to see every state there is.
class LiveSubscribers {
 public:
  explicit LiveSubscribers(unsigned short port) {
    for (size_t i = 0; i < kLive; ++i) _subscribers.emplace_back(port);
    for (Subscriber& one : _subscribers) _calls.emplace_back([this, &one] { Follow(one); });
  }

  // To be called before the last change.
  void SetLast(int last) { _last = last; }

  // Returns when all have read so much that what they have not is far below any bound, however late they are given the
  // processor.
  void AwaitCloseTo(int number) const {
    const auto isClose = [number](const Subscriber& one) { return one.seen > number - kMaxUnread; };
    EXPECT_TRUE(Eventually([&] { return std::all_of(_subscribers.begin(), _subscribers.end(), isClose); }));
  }

  void Join() {
    for (BackgroundCall& call : _calls) call.Join();
  }

 private:
  static constexpr int kMaxUnread = 300;  // of a kilobyte each

  struct Subscriber {
    explicit Subscriber(unsigned short port) : client(Subscribe(port)) {}

    ProtocolClient client;
    std::atomic<int> seen{0};
  };

  void Follow(Subscriber& one) {
    const size_t size = NoticeOf(0).size();
    for (int number = 1; _last < 0 || number <= _last; ++number) {
      ASSERT_EQ(one.client.Read(size), NoticeOf(number));
      one.seen = number;
    }
  }

  std::atomic<int> _last{-1};
  std::list<Subscriber> _subscribers;
  std::list<BackgroundCall> _calls;
};

// One that takes the store from state to state, as a client that makes sure that nobody was faster.
class Writer {
 public:
  explicit Writer(unsigned short port) : _client(port) {
    _client.Send("merge\n" + State(0) + ".\n");
    _client.AwaitHandled();
  }

  int GetState() const { return _state; }

  void Change() {
    const std::string condition = "[Load]\nn=" + std::to_string(1'000'000 + _state) + "\n.\n";
    _client.Send("test-and-merge\n" + condition + State(++_state) + ".\n");
    ASSERT_EQ(_client.ReadLine(), "result\n");
    ASSERT_EQ(_client.ReadLine(), "ok\n");
  }

  void ChangeUntil(const std::function<bool()>& isEnough) {
    while (_state < kMaxChanges && !isEnough()) Change();
  }

  // 200 times a second; how long each took, in milliseconds.
  Durations ChangeSteadily(int count) {
    Durations durations;
    auto next = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) {
      std::this_thread::sleep_until(next += std::chrono::milliseconds(5));  // the load is what the test is about
      durations.Measure([this] { Change(); });
    }
    return durations;
  }

 private:
  ProtocolClient _client;
  int _state = 0;
};

// Subscribers in processes of their own that are stopped.
std::list<ReaderProcess> StopSubscribers(unsigned short port) {
  std::list<ReaderProcess> stopped;
  for (size_t i = 0; i < kStopped; ++i) stopped.emplace_back(Subscribe(port, 4096)).Stop();
  return stopped;
}

// Whether the daemon has as many descriptors as before they came. The log does not name all connections of one address.
bool AreCut(const Daemon& daemon, size_t descriptors) {
  return CountOf(kCut, daemon.GetErrors()) > 0 && CountDescriptors(daemon.GetId()) == descriptors;
}

// The most bytes that were kept for one of them when it was cut.
size_t MaxKept(const std::string& errors) {
  size_t most = 0;
  for (size_t at = 0; (at = errors.find(kCut, at)) != std::string::npos;) {
    at += sizeof kCut - 1;
    most = std::max(most, static_cast<size_t>(std::stoul(errors.substr(at))));
  }
  return most;
}

}  // namespace

TEST(StalledSubscribers, AreCutWhileOthersMissNothingAndTheirMemoryReturns) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-backlog", "1048576", "--backlog-timeout", "1"});
  const unsigned short port = daemon.GetPort();
  Writer writer(port);
  LiveSubscribers live(port);
  writer.ChangeUntil([&] { return writer.GetState() == 100; });
  const size_t memory = ResidentMemory(daemon.GetId());
  const size_t descriptors = CountDescriptors(daemon.GetId());
  std::list<ReaderProcess> stopped = StopSubscribers(port);

  writer.ChangeUntil([&] {
    live.AwaitCloseTo(writer.GetState());
    return AreCut(daemon, descriptors);
  });

  EXPECT_TRUE(AreCut(daemon, descriptors)) << daemon.GetErrors();
  EXPECT_LT(ResidentGrowth(daemon.GetId(), memory), 8 * kMegabyte);
  live.SetLast(writer.GetState() + 1);
  writer.Change();
  live.Join();
  for (ReaderProcess& process : stopped) process.AwaitEnd();
}

// They are told the same, so that what they have not read is kept once. Its bound is for all of them together.
TEST(StalledSubscribers, ShareWhatTheyDoNotReadAndEndTogetherWhenThatIsTooMuch) {
  constexpr size_t kValue = 256 * 1024;
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-backlog", "1073741824", "--all-backlogs", std::to_string(32 * kMegabyte)});
  std::list<ProtocolClient> silent;
  ProtocolClient live = Subscribe(daemon.GetPort());
  const size_t descriptors = CountDescriptors(daemon.GetId());
  for (size_t i = 0; i < kStopped; ++i) silent.push_back(Subscribe(daemon.GetPort(), 4096));
  const size_t memory = ResidentMemory(daemon.GetId());
  const std::string group = "Load\n.\n[Load]\nv=" + std::string(kValue, 'v') + "\n.\n";
  const auto change = [&] {
    live.Send("merge\n" + group.substr(7));
    EXPECT_EQ(live.Read(13 + group.size()), "async change\n" + group);
  };

  for (int i = 0; i < 60; ++i) change();
  EXPECT_EQ(daemon.GetErrors(), "") << "15 MiB are unread by each, and nobody is cut";
  EXPECT_LT(PeakResidentGrowth(daemon.GetId(), memory), 48 * kMegabyte);

  const std::string cut = "connection cut: too much unread by all together, bytes of this one ";
  // Some may keep a text less, which their sockets took: the next changes are too much for these.
  for (int i = 0; i < 200 && CountDescriptors(daemon.GetId()) != descriptors; ++i) change();
  EXPECT_TRUE(Eventually([&] { return CountDescriptors(daemon.GetId()) == descriptors; })) << daemon.GetErrors();
  EXPECT_THAT(daemon.GetErrors(), testing::HasSubstr(cut));
  EXPECT_LT(PeakResidentGrowth(daemon.GetId(), memory), 64 * kMegabyte);
  change();
}

// The claims about time are made by a long run alone: a minute of each, with the daemon's own bounds.
TEST(StalledSubscribers, DoNotSlowWritersDown) {
  const int changes = IsLongRun() ? 12'000 : 100;
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  Writer writer(daemon.GetPort());
  LiveSubscribers live(daemon.GetPort());
  writer.ChangeSteadily(100);
  const size_t memory = ResidentMemory(daemon.GetId());
  const size_t descriptors = CountDescriptors(daemon.GetId());
  const Durations alone = writer.ChangeSteadily(changes);
  std::list<ReaderProcess> stopped = StopSubscribers(daemon.GetPort());
  live.SetLast(writer.GetState() + changes);
  EchoFloor floor;
  const Durations beside = writer.ChangeSteadily(changes);
  const CallFigures machine = floor.Stop();
  live.Join();

  std::printf("test-and-merge: p50 %.3f and p99 %.3f ms, beside %zu stalled subscribers %.3f and %.3f ms; ",
              alone.Quantile(0.5), alone.Quantile(0.99), kStopped, beside.Quantile(0.5), beside.Quantile(0.99));
  std::printf("the machine %.3f and %.3f ms\n", machine.median, machine.p99);
  if (!IsLongRun()) return;
  EXPECT_LE(beside.Quantile(0.99), 2 * alone.Quantile(0.99) + machine.p99);
  EXPECT_TRUE(AreCut(daemon, descriptors)) << daemon.GetErrors();
  EXPECT_LT(MaxKept(daemon.GetErrors()), 9 * kMegabyte);
  const size_t left = ResidentGrowth(daemon.GetId(), memory);
  std::printf(
      "resident: %zu KiB before, at most %zu KiB more, in the end %zu KiB more; at most %zu bytes kept for one\n",
      memory / 1024, PeakResidentGrowth(daemon.GetId(), memory) / 1024, left / 1024, MaxKept(daemon.GetErrors()));
  EXPECT_LT(left, 8 * kMegabyte);
}

}  // namespace tavix::test
