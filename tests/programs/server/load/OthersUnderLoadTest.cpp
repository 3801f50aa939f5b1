#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include "tests/programs/server/load/LoadParameter.h"
#include "tests/programs/server/load/LoadedDaemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DiskFloor.h"
#include "tests/support/EchoFloor.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/OtherClients.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RunLength.h"
#include "tests/support/RunningLoad.h"

// What clients see of a daemon that others load with what its bounds allow. Times are for long runs; short ones count.

namespace tavix::test {

namespace {

LoadSize ShortSize() {
  LoadSize size;
  size.storeGroups = 5'000;
  size.subscribers = 50;
  size.subscribedPatterns = 1'000;
  size.longNames = 50;
  size.hugeNames = 2;
  size.newGroups = 1'000;
  size.largeMergeBytes = size.savedMergeBytes = 5'000'000;
  size.abandonedBytes = 200'000;
  return size;
}

LoadSize Size() {
  return IsLongRun() ? LoadSize() : ShortSize();
}

// In milliseconds, what the others must see, and the longest that an end may take.
constexpr double kGetLimit = 5;
constexpr double kTestAndMergeLimit = 10;
constexpr double kPauseLimit = 100;
constexpr long kStopLimit = 2000;

constexpr size_t kMegabyte = 1024 * 1024;

// What the default bounds sum up to beside the store: unread replies, unfinished requests, and the store's growth.
constexpr size_t kMemoryLimit = (512 + 256 + 256 + 64) * kMegabyte;

class OthersUnderLoad : public testing::TestWithParam<Load> {
 protected:
  OthersUnderLoad() : _daemon(Size(), GetParam()), _memory(ResidentMemory(_daemon.Get().GetId())) {}

  // Runs the load beside the others, and ends the daemon while the load goes on.
  void RunToTheEndOfTheDaemon() {
    OtherClients others(_daemon.GetPort());
    EchoFloor floor;
    std::optional<DiskFloor> disk;
    if (GetParam().isSaved) disk.emplace(_daemon.GetDirectory().Path("floor"));
    RunningLoad load(GetParam(), _daemon.GetPort());
    if (IsLongRun()) {
      std::this_thread::sleep_for(std::chrono::seconds(5));  // the load is what the test is about
    } else {
      EXPECT_TRUE(Eventually([&] { return load.CountDone() >= 2 && others.CountAnswered() >= 10; }));
    }
    others.Stop();
    EXPECT_EQ(others.GetFailures(), "");
    _gets = others.GetGets();
    _testAndMerges = others.GetTestAndMerges();
    _floor = floor.Stop();
    if (disk) _disk = disk->Stop();
    _done = load.CountDone();
    _growth = PeakResidentGrowth(_daemon.Get().GetId(), _memory);
    _gap = _daemon.GetWatchdogTimes().GetLongestGap();
    Print();
    const ElapsedTime stop([&] { EXPECT_EQ(_daemon.Get().Stop(), 0); });
    _stop = stop.undisturbed;
    std::printf("%-18s end %ld ms\n", GetParam().name.c_str(), _stop);
  }

  void Print() const {
    std::printf("%-18s %6zu requests; a get p50 %.2f p99 %.2f longest %.1f ms; a test-and-merge %.2f, %.2f, %.1f ms; ",
                GetParam().name.c_str(), _done, _gets.median, _gets.p99, _gets.longest, _testAndMerges.median,
                _testAndMerges.p99, _testAndMerges.longest);
    std::printf("the machine %.2f, %.2f, %.1f ms, its disk %.2f, %.2f, %.1f ms; watchdog %ld ms, %zu MiB more\n",
                _floor.median, _floor.p99, _floor.longest, _disk.median, _disk.p99, _disk.longest, _gap,
                _growth / kMegabyte);
  }

  // The machine itself may be late, and its disk where changes are saved.
  void ExpectTimes() const {
    EXPECT_LT(_gets.p99, kGetLimit + _floor.p99);
    EXPECT_LT(_testAndMerges.p99, kTestAndMergeLimit + _floor.p99 + _disk.p99);
    EXPECT_LT(_gets.longest, kPauseLimit + _floor.longest);
    EXPECT_LT(_testAndMerges.longest, kPauseLimit + _floor.longest + _disk.longest);
    EXPECT_LT(_gap, WatchdogTimes::kTimeout.count() + static_cast<long>(_floor.longest));
    EXPECT_LT(_stop, kStopLimit);
    EXPECT_LT(_growth, kMemoryLimit);
  }

 private:
  LoadedDaemon _daemon;
  const size_t _memory;
  CallFigures _gets;
  CallFigures _testAndMerges;
  CallFigures _floor;
  CallFigures _disk;  // none where nothing is saved
  size_t _done = 0;
  size_t _growth = 0;
  long _gap = 0;
  long _stop = 0;
};

}  // namespace

TEST_P(OthersUnderLoad, AreAnsweredRightAndSoon) {
  RunToTheEndOfTheDaemon();
  if (IsLongRun()) ExpectTimes();
}

INSTANTIATE_TEST_SUITE_P(Load, OthersUnderLoad, testing::ValuesIn(MakeAllLoads(Size())), NameOf);

}  // namespace tavix::test
