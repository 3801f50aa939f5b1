#include "programs/cli/commands/Context.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <utility>

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

constexpr char kFileVariable[] = "TAVIX_SETTINGS_LOCALFILE";

// The library's clients take such a file for a store, whatever they were asked for, and never write to it.
GlobalOptions WithEnvironment(GlobalOptions options) {
  const char* file = std::getenv(kFileVariable);
  if (file == nullptr || !options.server.empty() || !options.local.empty()) return options;
  options.local = file;
  options.isLocalReadOnly = true;
  return options;
}

}  // namespace

Context::Context(const GlobalOptions& options, Console& console)
    : _options(WithEnvironment(options)), _console(console) {}

Session& Context::GetSession() {
  return _session ? *_session : Reconnect();
}

Session& Context::Reconnect() {
  _session.reset();
  const bool isFile = _options.isLocalReadOnly || !_options.local.empty();
  _session = isFile ? OpenFile() : Connect(_options);
  return *_session;
}

std::unique_ptr<Session> Context::OpenFile() {
  using Access = LocalSession::Access;
  if (!_options.isLocalReadOnly)
    return std::make_unique<LocalSession>(_options.local, _options.GetTimeout(), Access::kReadWrite);
  if (_options.local.empty())
    throw Failure(kExitUsage, std::string(kFileVariable) + ": expected a file's name, found an empty text",
                  "unset it, or give --server or --local");
  if (_options.local == "-")
    throw Failure(kExitUsage, std::string(kFileVariable) + ": '-' is no file; one of that name is './-'");
  if (!std::exchange(_isFileReported, true))
    _console.Say(std::string(kFileVariable) + " is set: reading file '" + _options.local + "', no server");
  return std::make_unique<LocalSession>(_options.local, _options.GetTimeout(), Access::kRead);
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
