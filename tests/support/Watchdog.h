#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace tavix::test {

// Ends a test that hangs: says the test's full name on standard error and aborts, so that a core tells where it stood.
// The tests' main() installs one; its thread takes no signals.
class Watchdog : public testing::EmptyTestEventListener {
 public:
  // limit: what one test may take.
  explicit Watchdog(std::chrono::seconds limit);
  ~Watchdog() override;

  // The seconds that the environment variable TAVIX_TEST_LIMIT gives, else 900.
  static std::chrono::seconds LimitFromEnvironment();

  void OnTestStart(const testing::TestInfo& test) override;
  void OnTestEnd(const testing::TestInfo& test) override;

 private:
  using Clock = std::chrono::steady_clock;

  void Watch();
  void Arm(const std::string& test);

  const std::chrono::seconds _limit;
  std::mutex _mutex;  // guards what follows
  std::condition_variable _changed;
  std::string _test;  // empty between tests
  Clock::time_point _end{};
  bool _stop = false;
  std::thread _thread;
};

}  // namespace tavix::test
