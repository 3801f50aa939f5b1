#include "tavix/settings/server/StreamOutput.h"

#include "tavix/settings/server/IMessageObserver.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;

void StreamOutput::BeginMessage(const GroupNameMatcher* groups) {
  if (_observer) _observer->OnMessage(_out, groups);
}

bool StreamOutput::WriteSharedMessage(const std::shared_ptr<const std::string>& text, const GroupNameMatcher* groups) {
  return _observer && _observer->OnSharedMessage(_out, text, groups);
}

bool StreamOutput::IsReachable() {
  return !_observer || _observer->IsReachable(_out);
}

void StreamOutput::OnMessageLost() {
  if (_observer) _observer->OnMessageLost(_out);
}

}  // namespace tavix::settings::server
