#include "programs/server/connections/SlowLane.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <future>
#include <string>
#include <vector>

#include "tavix/osa/Descriptor.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

using daemon::SlowLane;

// Runs until it is released, or until the lane is stopped.
class TestJob : public SlowLane::IJob {
 public:
  void Run(const std::function<bool()>& isStopped) noexcept override {
    ++runs;
    started.set_value();
    if (waits) released.get_future().wait();
    while (endsWhenStopped && !isStopped()) std::this_thread::yield();
  }
  int GetDoneEvent() const override { return done.Get(); }

  // Returns when the job has ended.
  void AwaitDone() const {
    eventfd_t count = 0;
    EXPECT_EQ(eventfd_read(done.Get(), &count), 0);
  }

  std::atomic<int> runs{0};
  bool waits = false;
  bool endsWhenStopped = false;
  std::promise<void> started;
  std::promise<void> released;
  const osa::Descriptor done{eventfd(0, EFD_CLOEXEC)};
};

// Notes when it was run.
class NotedJob : public TestJob {
 public:
  NotedJob(std::string& notes, char name) : _notes(notes), _name(name) {}

  void Run(const std::function<bool()>& isStopped) noexcept override {
    _notes += _name;
    TestJob::Run(isStopped);
  }

 private:
  std::string& _notes;  // the lane's thread's, until the last job has ended
  const char _name;
};

}  // namespace

TEST(SlowLane, RunsJobsOneAtATimeInTheirOrder) {
  TestJob first;
  TestJob second;
  first.waits = true;
  SlowLane lane;
  lane.Add(first);
  lane.Add(second);
  first.started.get_future().wait();
  EXPECT_EQ(second.runs, 0);
  first.released.set_value();
  first.AwaitDone();
  second.AwaitDone();
  EXPECT_EQ(second.runs, 1);
}

TEST(SlowLane, JobRunsAgainWhenItIsAddedAgain) {
  TestJob job;
  SlowLane lane;
  lane.Add(job);
  job.AwaitDone();
  job.started = std::promise<void>();
  lane.Add(job);
  job.AwaitDone();
  EXPECT_EQ(job.runs, 2);
}

TEST(SlowLane, WithdrawnJobIsNeverRun) {
  TestJob first;
  TestJob withdrawn;
  TestJob last;
  first.waits = true;
  SlowLane lane;
  for (TestJob* job : {&first, &withdrawn, &last}) lane.Add(*job);
  lane.Withdraw(withdrawn);
  first.released.set_value();
  last.AwaitDone();
  EXPECT_EQ(withdrawn.runs, 0);
}

TEST(SlowLane, JobIsTakenBackOnlyWhileItWaits) {
  TestJob running;
  TestJob waiting;
  TestJob departed;
  running.waits = true;
  SlowLane lane;
  for (TestJob* job : {&running, &waiting}) lane.Add(*job);
  lane.AddForDeparted(departed);
  running.started.get_future().wait();
  EXPECT_FALSE(lane.TryWithdraw(running));
  for (TestJob* job : {&waiting, &departed}) {
    EXPECT_TRUE(lane.TryWithdraw(*job));
    EXPECT_FALSE(lane.TryWithdraw(*job));
  }
  running.released.set_value();
  running.AwaitDone();
  EXPECT_FALSE(lane.TryWithdraw(running));
  EXPECT_EQ(waiting.runs + departed.runs, 0);
}

TEST(SlowLane, JobsOfDepartedClientsTakeTurnsWithTheOthers) {
  std::string notes;
  NotedJob first(notes, '0');
  NotedJob a(notes, 'a'), b(notes, 'b'), c(notes, 'c');
  NotedJob x(notes, 'x'), y(notes, 'y'), z(notes, 'z');
  first.waits = true;
  SlowLane lane;
  for (TestJob* job : {&first, &a, &b, &c}) lane.Add(*job);
  first.started.get_future().wait();
  for (TestJob* job : {&x, &y, &z}) lane.AddForDeparted(*job);
  first.released.set_value();
  for (TestJob* job : {&c, &z}) job->AwaitDone();
  EXPECT_EQ(notes, "0xaybzc");
}

TEST(SlowLane, JobOfAClientThatLeavesMovesToThoseOfDepartedClients) {
  std::string notes;
  NotedJob first(notes, '0');
  NotedJob a(notes, 'a'), b(notes, 'b'), moved(notes, 'm');
  first.waits = true;
  SlowLane lane;
  for (TestJob* job : {&first, &a, &b, &moved}) lane.Add(*job);
  first.started.get_future().wait();
  EXPECT_TRUE(lane.MoveToDeparted(first)) << "it runs";
  EXPECT_TRUE(lane.MoveToDeparted(moved));
  first.released.set_value();
  for (TestJob* job : {&moved, &b}) job->AwaitDone();
  EXPECT_EQ(notes, "0mab");
  EXPECT_EQ(first.runs, 1);
}

TEST(SlowLane, NextJobOfADepartedClientComesBeforeThoseOfOtherDepartedClients) {
  std::string notes;
  NotedJob first(notes, '0');
  NotedJob x(notes, 'x'), y(notes, 'y'), next(notes, 'n');
  first.waits = true;
  SlowLane lane;
  lane.Add(first);
  first.started.get_future().wait();
  for (TestJob* job : {&x, &y}) lane.AddForDeparted(*job);
  lane.AddNextForDeparted(next);
  first.released.set_value();
  y.AwaitDone();
  EXPECT_EQ(notes, "0nxy");
}

TEST(SlowLane, WithdrawOfTheRunningJobReturnsWhenItHasEnded) {
  TestJob job;
  job.waits = true;
  SlowLane lane;
  lane.Add(job);
  job.started.get_future().wait();
  BackgroundCall withdrawal([&] { lane.Withdraw(job); });
  withdrawal.AwaitBlocked();
  EXPECT_FALSE(withdrawal.HasEnded());
  job.released.set_value();
  withdrawal.Join();
}

TEST(SlowLane, StopEndsTheRunningJobAndForgetsTheOthers) {
  TestJob running;
  TestJob waiting;
  TestJob departed;
  running.endsWhenStopped = true;
  SlowLane lane;
  lane.Add(running);
  lane.Add(waiting);
  lane.AddForDeparted(departed);
  running.started.get_future().wait();
  lane.Stop();
  lane.Stop();
  running.AwaitDone();
  EXPECT_EQ(waiting.runs + departed.runs, 0);
}

TEST(SlowLane, JobThatIsAddedBehindTheEndIsNeverRun) {
  TestJob job;
  SlowLane lane;
  lane.Stop();
  lane.Add(job);
  lane.Withdraw(job);
  EXPECT_EQ(job.runs, 0);
}

}  // namespace tavix::test
