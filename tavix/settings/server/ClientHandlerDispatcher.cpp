#include "tavix/settings/server/ClientHandlerDispatcher.h"

#include <iterator>
#include <limits>
#include <memory>

#include "tavix/core/CoreLogging.h"
#include "tavix/core/Logger.h"
#include "tavix/core/Stopwatch.h"
#include "tavix/settings/server/HandlerCounts.h"

namespace tavix::settings::server {

void LogCommandCount(void* logContext, const std::string& name, unsigned long long count) {
  if (count <= static_cast<unsigned long long>(std::numeric_limits<int>::max())) {
    pelko_core_logging_log(logContext, core::kLogNotice, "ClientHandler stats: dispatch %s count %d", name.c_str(),
                           static_cast<int>(count));
  } else {
    pelko_core_logging_log(logContext, core::kLogNotice, "ClientHandler stats: dispatch %s count %llu", name.c_str(),
                           count);
  }
}

std::atomic<MsgDispatcher*> MsgDispatcher::s_pInstance{nullptr};

MsgDispatcher& MsgDispatcher::Get() {
  if (MsgDispatcher* known = s_pInstance.load(std::memory_order_acquire)) return *known;
  std::unique_ptr<MsgDispatcher> made(new MsgDispatcher);
  MsgDispatcher* first = nullptr;
  if (s_pInstance.compare_exchange_strong(first, made.get(), std::memory_order_acq_rel)) first = made.release();
  return *first;
}

MsgDispatcher::MsgDispatcher()
    : _logger(core::Logger::GetLogger("MsgDispatcher")),
      _counts(new Count[static_cast<size_t>(std::distance(CommandTable::begin(), CommandTable::end()))]) {}

void MsgDispatcher::Dispatch(ClientHandler& handler, std::string_view word, std::string_view args,
                             bool isSecondAttempt) {
  const CommandTable::Command* const command = CommandTable::Find(word);
  if (!command) {
    HandlerCounts::CountOne(handlerCounts.unknown);
    _logger->Warning("Invalid command: %s", std::string(word).c_str());
    return;
  }
  const bool traces = core::Logger::IsEnabled(core::kLogTrace);
  if (traces && !isSecondAttempt) _logger->Trace("Handling command: %s", command->word);
  Call(handler, *command, args, traces);
}

void MsgDispatcher::Call(ClientHandler& handler, const CommandTable::Command& command, std::string_view args,
                         bool traces) {
  const bool isTimed = traces || _times.load(std::memory_order_relaxed);
  const core::Stopwatch stopwatch(isTimed);
  (handler.*command.handler)(args);
  Count& count = GetCount(command);
  count.calls.fetch_add(1, std::memory_order_relaxed);
  if (!isTimed) return;
  const double seconds = stopwatch.Read();
  count.nanoseconds.fetch_add(static_cast<unsigned long long>(seconds * 1e9), std::memory_order_relaxed);
  if (traces) _logger->Trace("Command %s took %f seconds", command.word, seconds);
}

void MsgDispatcher::LogStatistics(void* logContext) const {
  for (const ClientHandler::Statistics::Command& command : ReadStatistics().commands)
    LogCommandCount(logContext, command.name, command.count);
}

ClientHandler::Statistics MsgDispatcher::ReadStatistics() const {
  ClientHandler::Statistics statistics;
  for (const CommandTable::Command& command : CommandTable()) {
    const Count& count = GetCount(command);
    const auto nanoseconds = static_cast<double>(count.nanoseconds.load(std::memory_order_relaxed));
    statistics.commands.push_back({command.word, count.calls.load(std::memory_order_relaxed), nanoseconds / 1e9});
  }
  statistics.unknown = handlerCounts.unknown.load(std::memory_order_relaxed);
  statistics.refusedSubscriptions = handlerCounts.refusedSubscriptions.load(std::memory_order_relaxed);
  statistics.replies = handlerCounts.replies.load(std::memory_order_relaxed);
  statistics.notices = handlerCounts.notices.load(std::memory_order_relaxed);
  return statistics;
}

}  // namespace tavix::settings::server
