#include "programs/bridge/core/StateRetry.h"

namespace tavix::bridge {

namespace {

constexpr Milliseconds kInterval{10'000};

}  // namespace

void StateRetry::OnFailed(const std::string& reason, Milliseconds now) {
  if (!_next) _report.Fail(reason + ": nothing is mirrored until that works");
  _next = now + kInterval;
}

void StateRetry::OnWritten() {
  if (_next) _report.Info("The state can be written again");
  _next.reset();
}

}  // namespace tavix::bridge
