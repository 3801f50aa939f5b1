#include "tests/support/Watchdog.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

namespace tavix::test {

namespace {

[[noreturn]] void End(const std::string& test, std::chrono::seconds limit) {
  const std::string text =
      "Watchdog: " + test + " has not ended after " + std::to_string(limit.count()) + " s, aborting\n";
  // Not through a stream: the test that hangs may hold its lock.
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) std::abort();
  std::abort();
}

}  // namespace

// The thread inherits the mask: a signal that a test sends to the process must reach the test's own threads.
Watchdog::Watchdog(std::chrono::seconds limit) : _limit(limit) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  _thread = std::thread(&Watchdog::Watch, this);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Watchdog::~Watchdog() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _stop = true;
  }
  _changed.notify_one();
  _thread.join();
}

std::chrono::seconds Watchdog::LimitFromEnvironment() {
  const char* text = std::getenv("TAVIX_TEST_LIMIT");
  const long seconds = text ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::seconds(seconds > 0 ? seconds : 900);
}

void Watchdog::OnTestStart(const testing::TestInfo& test) {
  Arm(std::string(test.test_suite_name()) + "." + test.name());
}

void Watchdog::OnTestEnd(const testing::TestInfo&) {
  Arm("");
}

void Watchdog::Arm(const std::string& test) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _test = test;
    _end = Clock::now() + _limit;
  }
  _changed.notify_one();
}

void Watchdog::Watch() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (!_stop) {
    if (_test.empty()) {
      _changed.wait(lock);
    } else if (_changed.wait_until(lock, _end) == std::cv_status::timeout && !_test.empty() && Clock::now() >= _end) {
      End(_test, _limit);
    }
  }
}

}  // namespace tavix::test
