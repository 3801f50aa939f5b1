#include "programs/server/persistence/JournalSyncer.h"

#include <exception>
#include <optional>
#include <utility>

#include "programs/server/persistence/SaveFailure.h"

namespace tavix::daemon {

using settings::server::LayerView;

namespace {

constexpr int kMaxRounds = 8;

}  // namespace

JournalSyncer::JournalSyncer(SharedUserLayer& layer, LayerReader readLayer)
    : _layer(layer),
      _readLayer(std::move(readLayer)),
      _thread(std::make_unique<programs::LoopThread>("JournalSync", [this] { Run(); })) {}

void JournalSyncer::Run() {
  while (true) {
    switch (_layer.AwaitJournalWork()) {
      case JournalWork::kStop:
        return;
      case JournalWork::kWrite:
        WritePending();
        break;
      case JournalWork::kSync:
        Sync();
        break;
    }
  }
}

void JournalSyncer::Sync() {
  const std::optional<SyncRound> round = _layer.BeginSync();
  if (!round) return;
  try {
    round->journal->SyncRecords();
    if (!_layer.TakePlace(*round)) return _layer.OnSyncUseless();
    round->journal->SyncName();
  } catch (const std::exception& exception) {
    return _layer.OnSyncFailed(*round, ReasonOf(exception));
  }
  _layer.OnSynced(*round);
}

// What came while a long record was written is appended behind it, and shares its sync, unless it is much.
void JournalSyncer::WritePending() {
  if (!Write([this](ChangeInParts& change) { return MakeChange(change); })) return;
  Write([this](ChangeInParts& change) {
    LateRecord record;
    _readLayer([&](const LayerView& layer) { _layer.ClosePending(change, std::nullopt, layer, false, record); });
    return record;
  });
}

// make: returns the record that the change gets; it has no journal when there is nothing more to be written. False when
// nothing more was.
bool JournalSyncer::Write(const std::function<LateRecord(ChangeInParts&)>& make) {
  LateRecord record;
  try {
    ChangeInParts change;
    record = make(change);
    if (!record.journal) return false;
    record.journal->WriteAppended([&](const auto& write) { change.WriteTexts(write); });
    _layer.OnLateWritten(record);
    return true;
  } catch (const std::exception& exception) {
    _layer.OnLateWriteFailed(record, ReasonOf(exception));
    return false;
  }
}

LateRecord JournalSyncer::MakeChange(ChangeInParts& change) const {
  LateRecord record;
  CloseResult close = CloseResult::kMore;
  NotedChanges::Epoch epoch = 0;
  for (int round = 1; close == CloseResult::kMore; ++round) {
    PendingGroups pending = _layer.TakePending();
    if (pending.epoch != epoch) change.TakeBack();  // belongs to no record any more
    epoch = pending.epoch;
    change.Add(std::move(pending.changes));
    for (bool hasMore = true; hasMore;) _readLayer([&](const LayerView& layer) { hasMore = change.MakePart(layer); });
    const bool isLast = round == kMaxRounds;
    _readLayer([&](const LayerView& layer) { close = _layer.ClosePending(change, epoch, layer, isLast, record); });
  }
  return record;
}

void JournalSyncer::WriteRest() {
  while (_layer.IsLateWriteDue()) WritePending();
  if (const std::shared_ptr<Journal> journal = _layer.GetJournal()) journal->Sync();
}

}  // namespace tavix::daemon
