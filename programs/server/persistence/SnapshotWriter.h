#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "programs/common/LoopThread.h"
#include "programs/server/persistence/HistoryFile.h"
#include "programs/server/persistence/SharedUserLayer.h"
#include "programs/server/persistence/TrialFile.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/TextInParts.h"

namespace tavix::daemon {

// The thread "Snapshot": writes a snapshot whenever one is due, and what the persister has to log.
//
// In order: groups that change are noted from the first to the last step. The layer's text is made in parts, each under
// the store's read lock; parts whose groups changed are made again, the last of them in one go, which is the moment
// whose state the snapshot holds. What is on trial at that moment goes to a file of its own; then the snapshot is
// written and takes the place of the snapshot before; changes go on into the journal before it, whose entries of the
// history go to their own file. At last the next journal is made, which gets the groups that changed since that moment,
// in parts that writers do not wait for. From TakeOver on no change goes to any journal; once the next one has got
// those before, it becomes the current one, and JournalSyncer writes those since. A failure is reported to the layer,
// which asks for another snapshot later.
//
// Threads: one makes and ends the object. Write is called on the thread "Snapshot", or behind its end.
class SnapshotWriter {
 public:
  // Calls back with the user layer while nobody can change it.
  using LayerReader = settings::server::TextInParts::Reader;

  // layer, files, history, trials: outlive the object.
  SnapshotWriter(SharedUserLayer& layer, UserSettingsFiles& files, HistoryFile& history, TrialFile& trials,
                 LayerReader readLayer);

  // Waits for the thread, which ends once the layer is stopped.
  void AwaitEnd() { _thread.reset(); }

  // Writes a snapshot on this thread, which is the object's own or comes after its end. False when that failed.
  bool Write();

  // Appends what no snapshot could to the history. Comes after the thread's end, when a snapshot holds all changes.
  void WriteRestOfHistory();

 private:
  struct Text {
    std::string bytes;
    int64_t time = 0;
    UserLayerState::Snapshot snapshot;
    uint64_t revision = 0;
    std::string trials;
  };

  void Run();
  Text MakeText();
  void Replace(const Text& text);
  void ReplaceOnce(const Text& text);
  bool MakeRoom();
  void AppendHistory(uint64_t revision);
  void TakeOver(const UserLayerState::Snapshot& snapshot);
  std::shared_ptr<Journal> MakeNextJournal(const SnapshotId& snapshot, SharedUserLayer::Ticket& last)
      TAVIX_REQUIRES(_layer.GetNameMutex());
  SharedUserLayer::Ticket AppendChanges(Journal& next);

  SharedUserLayer& _layer;
  UserSettingsFiles& _files;
  HistoryFile& _history;
  TrialFile& _trials;
  const LayerReader _readLayer;
  std::unique_ptr<programs::LoopThread> _thread;
};

}  // namespace tavix::daemon
