#pragma once

#include "programs/server/connections/OutputQueue.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "tavix/settings/server/IMessageObserver.h"

namespace tavix::daemon {

// Has messages that show changes wait in their output queues until those are durable, and breaks the queue that misses
// a message.
class MessageHolder : public settings::server::IMessageObserver {
 public:
  // gate: may be null, then nothing waits; else outlives the holder.
  explicit MessageHolder(DurabilityGate* gate) : _gate(gate) {}

  // out: of an output queue.
  void OnMessage(std::ostream& out, const settings::common::GroupNameMatcher* groups) override {
    if (_gate) OutputQueue::Of(out).HoldMessage(_gate->FindLast(groups));
  }

  void OnMessageLost(std::ostream& out) override { OutputQueue::Of(out).OnMessageLost(); }

 private:
  DurabilityGate* const _gate;
};

}  // namespace tavix::daemon
