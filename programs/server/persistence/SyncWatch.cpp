#include "programs/server/persistence/SyncWatch.h"

#include <utility>

namespace tavix::daemon {

namespace {

constexpr std::chrono::seconds kLong{5};

}  // namespace

bool SyncWatch::Begin(Clock::time_point now) {
  _began = now;
  if (_nextLook) return false;
  _nextLook = now + kLong;
  return true;
}

bool SyncWatch::End() {
  _began.reset();
  if (!std::exchange(_wasTold, false)) return false;
  _log.AddWarning(_quotedPath.c_str(), ": the disk syncs changes again");
  return true;
}

void SyncWatch::Look(Clock::time_point now) {
  if (!_nextLook || now < *_nextLook) return;
  _nextLook.reset();
  if (!_began) return;
  const bool hangs = now - *_began >= kLong;
  if (hangs && !std::exchange(_wasTold, true))
    _log.AddWarning(_quotedPath.c_str(), ": the disk takes long to sync the last changes");
  _nextLook = (hangs ? now : *_began) + kLong;
}

}  // namespace tavix::daemon
