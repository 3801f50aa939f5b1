#include "programs/cli/commands/Context.h"

#include <algorithm>

#include "programs/cli/session/DaemonSession.h"
#include "programs/cli/session/LocalSession.h"
#include "programs/cli/text/Failure.h"

namespace tavix::cli {

Session& Context::GetSession() {
  return _session ? *_session : Reconnect();
}

Session& Context::Reconnect() {
  _session.reset();
  if (_options.local.empty()) {
    _session = std::make_unique<DaemonSession>(_options.server, _options.GetTimeout(),
                                               _options.verbose ? Console::Trace : nullptr);
  } else {
    _session = std::make_unique<LocalSession>(_options.local, _options.GetTimeout());
  }
  return *_session;
}

void Context::RequireOutput(std::initializer_list<Output> allowed) const {
  constexpr const char* kNames[] = {"text", "ini", "json", "shell", "value"};
  const Output wanted = _options.output;
  if (wanted == Output::kText || std::find(allowed.begin(), allowed.end(), wanted) != allowed.end()) return;
  std::string names = "text";
  for (const Output output : allowed) names += std::string(", ") + kNames[static_cast<size_t>(output)];
  throw Failure(kExitUsage, std::string("this command can't print as '") + kNames[static_cast<size_t>(wanted)] +
                                "', only as " + names);
}

}  // namespace tavix::cli
