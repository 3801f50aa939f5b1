#pragma once

#include <memory>
#include <string>

#include "tavix/settings/server/IClientOutput.h"

namespace tavix::settings::server {

class IMessageObserver;

// The output of a handler that was given a plain stream: nothing is held or shared, unless the environment's observer
// does it.
//
// Threads: as IClientOutput.
// Owns:    neither stream nor observer; both outlive it.
class StreamOutput : public IClientOutput {
 public:
  // observer: may be null.
  StreamOutput(std::ostream& out, IMessageObserver* observer) : _out(out), _observer(observer) {}

  std::ostream& GetOstream() override { return _out; }
  void BeginMessage(const common::GroupNameMatcher* groups) override;
  bool WriteSharedMessage(const std::shared_ptr<const std::string>& text,
                          const common::GroupNameMatcher* groups) override;
  bool IsReachable() override;
  void OnMessageLost() override;

 private:
  std::ostream& _out;
  IMessageObserver* const _observer;  // may be null
};

}  // namespace tavix::settings::server
