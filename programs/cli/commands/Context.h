#pragma once

#include <initializer_list>
#include <memory>

#include "programs/cli/terminal/Console.h"
#include "programs/cli/terminal/GlobalOptions.h"
#include "programs/common/client/Session.h"

namespace tavix::programs::cli {

// What a command runs with.
//
// Threads: one.
// Owns:    the session.
// Errors:  GetSession and Reconnect throw what a session's constructor does.
class Context {
 public:
  // options: where they name no store, TAVIX_SETTINGS_LOCALFILE may name a file. console: outlives the context.
  Context(const GlobalOptions& options, Console& console);

  const GlobalOptions& GetOptions() const { return _options; }
  Console& GetConsole() const { return _console; }

  // Connected when it is first asked for.
  Session& GetSession();

  // A new session in place of one that was lost.
  Session& Reconnect();

  // Throws Failure, kExitUsage, when --output is none of these and not kText.
  void RequireOutput(std::initializer_list<Output> allowed) const;

  bool PrintsJson() const { return _options.output == Output::kJson; }

 private:
  std::unique_ptr<Session> OpenFile();

  const GlobalOptions _options;
  Console& _console;
  std::unique_ptr<Session> _session;
  bool _isFileReported = false;  // that the environment names it
};

}  // namespace tavix::programs::cli
