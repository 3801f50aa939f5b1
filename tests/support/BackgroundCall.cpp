#include "tests/support/BackgroundCall.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "tests/support/Patience.h"

namespace tavix::test {

namespace {

constexpr std::chrono::microseconds kPause{200};  // leaves the processor to what is waited for

}  // namespace

BackgroundCall::BackgroundCall(std::function<void()> call) {
  _thread = std::thread([this, call = std::move(call)] {
    _started.set_value(static_cast<pid_t>(syscall(SYS_gettid)));
    try {
      call();
    } catch (...) {
      _exception = std::current_exception();
    }
    _ended = true;
  });
  _id = _started.get_future().get();
}

BackgroundCall::~BackgroundCall() {
  if (_thread.joinable()) _thread.join();
}

void BackgroundCall::Join() {
  _thread.join();
  if (_exception) std::rethrow_exception(_exception);
}

// "sleeping", with the number of times that the thread gave up the processor by itself; empty when it runs or is gone.
std::string BackgroundCall::GetStatus() const {
  std::ifstream file("/proc/self/task/" + std::to_string(_id) + "/status");
  bool sleeps = false;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("State:\tS", 0) == 0) sleeps = true;
    if (sleeps && line.rfind("voluntary_ctxt_switches:", 0) == 0) return line;
  }
  return std::string();
}

// A thread may sleep for a moment on its way, for a lock of the allocator for example: it must be found in the very
// same sleep many times in a row.
void BackgroundCall::AwaitBlocked() const {
  std::string last;
  for (int same = 0; same < 50 && !HasEnded();) {
    const std::string now = GetStatus();
    same = !now.empty() && now == last ? same + 1 : 0;
    last = now;
    std::this_thread::yield();
  }
}

bool Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace tavix::test
