#pragma once

#include <functional>
#include <memory>

#include "programs/common/LoopThread.h"
#include "programs/server/persistence/ChangeInParts.h"
#include "programs/server/persistence/SharedUserLayer.h"
#include "tavix/settings/server/TextInParts.h"

namespace tavix::daemon {

// The thread "JournalSync". Syncs the journal as soon as there is a change that needs it, or when the durability's
// interval is over: one sync for all changes that were appended before it began. Then the output that waits for these
// changes is released. Writes large changes, too, which their writers only note.
//
// A sync in order: the layer gives the journal, and the last change in it; the records are synced; a journal that is
// new takes its place, which is where it is found; its name is synced; the layer and the gate learn of it. Meanwhile
// changes are appended, the journal may be given up, or a snapshot's next journal may replace it: the layer then
// ignores a failure, and an old journal never gets the name of a new one.
//
// A write in order: the text of the pending groups is made in parts, each under the store's read lock; groups that
// changed meanwhile are pending again, and when these are few, their text is made under the lock, which is the moment
// whose state the record leads to. A long record is written without a lock, and the disk gets it piece by piece;
// changes behind that moment are pending again, and appended behind it when they are few.
//
// Threads: one makes and ends the object. WriteRest comes behind the end of the thread "JournalSync".
// Locks:   none is held while the disk works, but the one for names during a rename.
class JournalSyncer {
 public:
  // Calls back with the user layer while nobody can change it.
  using LayerReader = settings::server::TextInParts::Reader;

  // layer: outlives the object.
  JournalSyncer(SharedUserLayer& layer, LayerReader readLayer);

  // Waits for the thread, which ends once the layer is stopped.
  void AwaitEnd() { _thread.reset(); }

  // Writes and syncs what the journal lacks, behind the thread's end.
  void WriteRest();

 private:
  void Run();
  void Sync();
  void WritePending();
  bool Write(const std::function<LateRecord(ChangeInParts&)>& make);
  LateRecord MakeChange(ChangeInParts& change) const;

  SharedUserLayer& _layer;
  const LayerReader _readLayer;
  std::unique_ptr<programs::LoopThread> _thread;
};

}  // namespace tavix::daemon
