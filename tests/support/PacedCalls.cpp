#include "tests/support/PacedCalls.h"

#include <exception>
#include <utility>

namespace tavix::test {

CallFigures Summarise(const Durations& durations) {
  if (durations.Count() == 0) return {};
  return {durations.Count(), durations.Quantile(0.5), durations.Quantile(0.99), durations.Quantile(1)};
}

PacedCalls::PacedCalls(std::chrono::milliseconds pause, std::function<std::string()> call,
                       std::function<void()> interrupt)
    : _pause(pause), _call(std::move(call)), _interrupt(std::move(interrupt)), _thread([this] { Run(); }) {}

PacedCalls::~PacedCalls() {
  if (_thread.joinable()) Stop();
}

Durations PacedCalls::Stop() {
  _isStopping = true;
  _interrupt();
  _thread.join();
  return _durations;
}

std::string PacedCalls::GetFailure() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _failure;
}

void PacedCalls::Run() {
  std::string failure;
  while (!_isStopping && failure.empty()) {
    _durations.Measure([&] { failure = CallOnce(); });
    if (failure.empty()) ++_count;
    std::this_thread::sleep_for(_pause);  // the pace is what this is about
  }
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_isStopping) _failure = failure;
}

std::string PacedCalls::CallOnce() {
  try {
    return _call();
  } catch (const std::exception& exception) {
    return std::string("exception: ") + exception.what();
  }
}

}  // namespace tavix::test
