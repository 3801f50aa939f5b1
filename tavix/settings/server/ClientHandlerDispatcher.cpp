#include "tavix/settings/server/ClientHandlerDispatcher.h"

#include <limits>
#include <memory>

#include "tavix/core/CoreLogging.h"
#include "tavix/core/Logger.h"
#include "tavix/core/Stopwatch.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

void LogCommandCount(void* logContext, const std::string& name, unsigned long long count) {
  if (count <= static_cast<unsigned long long>(std::numeric_limits<int>::max())) {
    pelko_core_logging_log(logContext, core::kLogNotice, "ClientHandler stats: dispatch %s count %d", name.c_str(),
                           static_cast<int>(count));
  } else {
    pelko_core_logging_log(logContext, core::kLogNotice, "ClientHandler stats: dispatch %s count %llu", name.c_str(),
                           count);
  }
}

std::atomic<ClientHandler::MsgDispatcher*> ClientHandler::MsgDispatcher::s_pInstance{nullptr};

ClientHandler::MsgDispatcher& ClientHandler::MsgDispatcher::Get() {
  if (MsgDispatcher* known = s_pInstance.load(std::memory_order_acquire)) return *known;
  std::unique_ptr<MsgDispatcher> made(new MsgDispatcher);
  MsgDispatcher* first = nullptr;
  if (s_pInstance.compare_exchange_strong(first, made.get(), std::memory_order_acq_rel)) first = made.release();
  return *first;
}

ClientHandler::MsgDispatcher::MsgDispatcher() : _logger(core::Logger::GetLogger("MsgDispatcher")) {
  Add(protocol::kQuit, &ClientHandler::Quit);
  Add(protocol::kDump, &ClientHandler::Dump);
  Add(protocol::kMerge, &ClientHandler::Merge);
  Add(protocol::kTestAndMerge, &ClientHandler::TestAndMerge);
  Add(protocol::kSubscribe, &ClientHandler::Subscribe);
  Add(protocol::kGet, &ClientHandler::GetSections);
  Add(protocol::kOverwrite, &ClientHandler::Overwrite);
  Add(protocol::kSerialize, &ClientHandler::ChangeSerialization);
  Add(protocol::kRestore, &ClientHandler::RestoreDefaults);
  Add(protocol::kInfo, &ClientHandler::Info);
}

void ClientHandler::MsgDispatcher::Add(const char* word, void (ClientHandler::*handler)(std::istream& args)) {
  _handlers[word].handler = handler;
}

void ClientHandler::MsgDispatcher::Dispatch(ClientHandler& handler, std::string_view word, std::istream& args) {
  const auto found = _handlers.find(word);
  if (found == _handlers.end()) {
    _unknown.fetch_add(1, std::memory_order_relaxed);
    _logger->Warning("Invalid command: %s", std::string(word).c_str());
    return;
  }
  auto& [name, entry] = *found;
  const bool traces = core::Logger::IsEnabled(core::kLogTrace);
  const bool isTimed = traces || _times.load(std::memory_order_relaxed);
  if (traces && !handler._isSecondAttempt) _logger->Trace("Handling command: %s", name.c_str());
  const core::Stopwatch stopwatch(isTimed);
  (handler.*entry.handler)(args);
  entry.count.fetch_add(1, std::memory_order_relaxed);
  if (!isTimed) return;
  const double seconds = stopwatch.Read();
  entry.nanoseconds.fetch_add(static_cast<unsigned long long>(seconds * 1e9), std::memory_order_relaxed);
  if (traces) _logger->Trace("Command %s took %f seconds", name.c_str(), seconds);
}

void ClientHandler::MsgDispatcher::LogStatistics(void* logContext) const {
  for (const auto& [name, entry] : _handlers) {
    LogCommandCount(logContext, name, entry.count.load(std::memory_order_relaxed));
  }
}

ClientHandler::Statistics ClientHandler::MsgDispatcher::ReadStatistics() const {
  Statistics statistics;
  for (const auto& [name, entry] : _handlers) {
    const unsigned long long count = entry.count.load(std::memory_order_relaxed);
    const auto nanoseconds = static_cast<double>(entry.nanoseconds.load(std::memory_order_relaxed));
    statistics.commands.push_back({name, count, nanoseconds / 1e9});
  }
  statistics.unknown = _unknown.load(std::memory_order_relaxed);
  statistics.refusedSubscriptions = _refusedSubscriptions.load(std::memory_order_relaxed);
  statistics.notices = _notices.load(std::memory_order_relaxed);
  return statistics;
}

}  // namespace tavix::settings::server
