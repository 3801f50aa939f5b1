#include "programs/server/persistence/JournalSyncer.h"

#include <exception>
#include <optional>

#include "programs/server/persistence/SaveFailure.h"

namespace tavix::daemon {

JournalSyncer::JournalSyncer(SharedUserLayer& layer) : _layer(layer), _thread("JournalSync", [this] { Run(); }) {}

void JournalSyncer::Run() {
  while (const std::optional<SharedUserLayer::SyncRound> round = _layer.AwaitSync()) Sync(*round);
}

void JournalSyncer::Sync(const SharedUserLayer::SyncRound& round) {
  try {
    round.journal->SyncRecords();
    if (!_layer.TakePlace(round)) return _layer.OnSyncUseless();
    round.journal->SyncName();
  } catch (const std::exception& exception) {
    return _layer.OnSyncFailed(round, ReasonOf(exception));
  }
  _layer.OnSynced(round);
}

}  // namespace tavix::daemon
