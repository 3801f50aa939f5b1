#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/CommandTable.h"

namespace tavix::settings::server {

// One line of LogStatistics. Hosts know the format with an int; a count that is greater has a format of its own, and
// the same text.
void LogCommandCount(void* logContext, const std::string& name, unsigned long long count);

// Finds a command's handler by its word, and counts. One for the process; its counts cover all connections of all time.
//
// Threads: any.
class MsgDispatcher {
 public:
  // Made on first use and never freed.
  static MsgDispatcher& Get();

  // Calls the command's handler on "handler"; an unknown word is logged and dropped. A call that throws is not counted.
  // isSecondAttempt: the request was begun before, which a trace has said.
  void Dispatch(ClientHandler& handler, std::string_view word, std::string_view args, bool isSecondAttempt);

  // Has commands timed from now on, whether or not anybody reads traces.
  void TimeCommands() { _times.store(true, std::memory_order_relaxed); }

  void LogStatistics(void* logContext) const;
  ClientHandler::Statistics ReadStatistics() const;

 private:
  struct Count {
    std::atomic<unsigned long long> calls{0};
    std::atomic<unsigned long long> nanoseconds{0};
  };

  MsgDispatcher();
  void Call(ClientHandler& handler, const CommandTable::Command& command, std::string_view args, bool traces);

  Count& GetCount(const CommandTable::Command& command) const {
    return _counts[static_cast<size_t>(&command - CommandTable::begin())];
  }

  static std::atomic<MsgDispatcher*> s_pInstance;

  core::Logger* const _logger;
  const std::unique_ptr<Count[]> _counts;  // as the table
  std::atomic<bool> _times{false};
};

}  // namespace tavix::settings::server
