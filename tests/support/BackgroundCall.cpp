#include "tests/support/BackgroundCall.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

#include "tests/support/Patience.h"
#include "tests/support/Threads.h"

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

void BackgroundCall::AwaitBlocked() const {
  AwaitSameLook([this] { return HasEnded() ? "ended" : LookAtThread(_id); }, kLooksAtOne);
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
