#include "programs/server/persistence/SyncWatch.h"

#include <utility>

namespace tavix::daemon {

bool SyncWatch::Begin(Clock::time_point now) {
  _began = now;
  if (_nextLook) return false;
  _nextLook = now + _limit;
  return true;
}

bool SyncWatch::End() {
  _began.reset();
  if (!std::exchange(_isReported, false)) return false;
  _log.AddWarning(_quotedPath.c_str(), ": the disk syncs changes again");
  return true;
}

void SyncWatch::Look(Clock::time_point now) {
  if (!_nextLook || now < *_nextLook) return;
  _nextLook.reset();
  if (!_began) return;  // a rest
  const bool hangs = now - *_began >= _limit;
  if (hangs && !std::exchange(_isReported, true))
    _log.AddWarning(_quotedPath.c_str(), ": the disk takes long to sync the last changes");
  _nextLook = (hangs ? now : *_began) + _limit;
}

}  // namespace tavix::daemon
