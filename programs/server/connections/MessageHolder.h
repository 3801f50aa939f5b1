#pragma once

#include <memory>
#include <string>

#include "programs/server/connections/OutputQueue.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "tavix/settings/server/IMessageObserver.h"

namespace tavix::daemon {

// Has messages that show changes wait in their output queues until those are durable, has queues share the messages
// that several of them are given, and breaks the queue that misses a message.
class MessageHolder : public settings::server::IMessageObserver {
 public:
  // gate: may be null, then nothing waits; else outlives the holder.
  explicit MessageHolder(DurabilityGate* gate) : _gate(gate) {}

  // out: of an output queue.
  void OnMessage(std::ostream& out, const settings::common::GroupNameMatcher* groups) override {
    if (_gate) OutputQueue::Of(out).HoldMessage(_gate->FindLast(groups));
  }

  bool OnSharedMessage(std::ostream& out, const std::shared_ptr<const std::string>& text,
                       const settings::common::GroupNameMatcher* groups) override {
    OnMessage(out, groups);
    OutputQueue::Of(out).WriteShared(text);
    return true;
  }

  bool IsReachable(std::ostream& out) override { return OutputQueue::Of(out).IsReachable(); }

  void OnMessageLost(std::ostream& out) override { OutputQueue::Of(out).OnMessageLost(); }

 private:
  DurabilityGate* const _gate;
};

}  // namespace tavix::daemon
