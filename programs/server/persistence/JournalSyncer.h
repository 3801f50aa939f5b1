#pragma once

#include "programs/server/persistence/SharedUserLayer.h"
#include "programs/server/system/LoopThread.h"

namespace tavix::daemon {

// The thread "JournalSync". Syncs the journal as soon as there is a change that needs it, or when the durability's
// interval is over: one sync for all changes that were appended before it began. Then the output that waits for these
// changes is released.
//
// In a round: the layer gives the journal, and the last change in it; the records are synced; a journal that is new
// takes its place, which is where it is found; its name is synced; the layer and the gate are told. Meanwhile changes
// are appended, the journal may be given up, or a snapshot's next journal may replace it: the layer then ignores a
// failure, and an old journal never gets the name of a new one.
//
// Holds no lock while the disk works, but the one for names during a rename.
class JournalSyncer {
 public:
  // layer: outlives the object. The thread ends once the layer is stopped; the destructor waits for it.
  explicit JournalSyncer(SharedUserLayer& layer);

 private:
  void Run();
  void Sync(const SharedUserLayer::SyncRound& round);

  SharedUserLayer& _layer;
  LoopThread _thread;
};

}  // namespace tavix::daemon
