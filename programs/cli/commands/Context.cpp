#include "programs/cli/commands/Context.h"

#include <algorithm>
#include <limits>

#include "programs/cli/session/LocalSession.h"
#include "programs/common/client/DaemonSession.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

std::unique_ptr<Session> Connect(const GlobalOptions& options) {
  settings::client::ProtocolOptions client;
  client.address = options.server;
  client.addressSource = "--server";
  client.timeouts.silence = options.GetTimeout();
  client.maxMessageBytes = std::numeric_limits<size_t>::max();  // a store is as large as its owner lets it be
  return std::make_unique<DaemonSession>(
      client, "start one with 'tavix-settings-server', name another with --server, or use --local FILE",
      options.verbose ? Console::Trace : nullptr);
}

}  // namespace

Session& Context::GetSession() {
  return _session ? *_session : Reconnect();
}

Session& Context::Reconnect() {
  _session.reset();
  if (_options.local.empty()) {
    _session = Connect(_options);
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

}  // namespace tavix::programs::cli
