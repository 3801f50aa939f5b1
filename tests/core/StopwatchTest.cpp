#include "tavix/core/Stopwatch.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using tavix::core::Stopwatch;

// What only time itself can bring about.
void LetTimePass(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
}

TEST(Stopwatch, StandsAtZeroUntilItIsStarted) {
  const Stopwatch stopwatch(false);
  LetTimePass(std::chrono::milliseconds(2));
  EXPECT_EQ(stopwatch.Read(), 0.0);
}

TEST(Stopwatch, MeasuresSecondsSinceItsConstruction) {
  const auto before = std::chrono::steady_clock::now();
  const Stopwatch stopwatch(true);
  LetTimePass(std::chrono::milliseconds(20));
  const double read = stopwatch.Read();
  EXPECT_GE(read, 0.020);
  EXPECT_LE(read, std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count());
}

TEST(Stopwatch, NeverGoesBack) {
  const Stopwatch stopwatch(true);
  double last = 0;
  for (int i = 0; i < 10000; ++i) {
    const double now = stopwatch.Read();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(Stopwatch, StartBeginsAnew) {
  Stopwatch stopwatch(true);
  LetTimePass(std::chrono::milliseconds(20));
  const auto before = std::chrono::steady_clock::now();
  stopwatch.Start();
  const double read = stopwatch.Read();
  EXPECT_LE(read, std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count());
}

}  // namespace
