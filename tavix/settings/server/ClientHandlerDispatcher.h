#pragma once

#include <atomic>
#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>

#include "tavix/settings/server/ClientHandler.h"

namespace tavix::settings::server {

// One line of LogStatistics. Hosts know the format with an int; a count that is greater has a format of its own, and
// the same text.
void LogCommandCount(void* logContext, const std::string& name, unsigned long long count);

// Finds a command's handler by its word, and counts. One for the process; its counts cover all connections of all time.
class ClientHandler::MsgDispatcher {
 public:
  // Made on first use and never freed.
  static MsgDispatcher& Get();

  // Calls the command's handler on "handler"; an unknown word is logged and dropped. A call that throws is not counted.
  void Dispatch(ClientHandler& handler, std::string_view word, std::istream& args);

  // Has commands timed from now on, whether or not anybody reads traces.
  void TimeCommands() { _times.store(true, std::memory_order_relaxed); }

  void LogStatistics(void* logContext) const;
  Statistics ReadStatistics() const;

  void CountRefusedSubscription() { _refusedSubscriptions.fetch_add(1, std::memory_order_relaxed); }
  void CountNotice() { _notices.fetch_add(1, std::memory_order_relaxed); }

 private:
  struct fpMsgHandler {
    void (ClientHandler::*handler)(std::istream& args);
    std::atomic<unsigned long long> count{0};
    std::atomic<unsigned long long> nanoseconds{0};
  };

  MsgDispatcher();
  void Add(const char* word, void (ClientHandler::*handler)(std::istream& args));

  static std::atomic<MsgDispatcher*> s_pInstance;

  core::Logger* const _logger;
  std::map<std::string, fpMsgHandler, std::less<>> _handlers;
  std::atomic<bool> _times{false};
  std::atomic<unsigned long long> _unknown{0};
  std::atomic<unsigned long long> _notices{0};
  std::atomic<unsigned long long> _refusedSubscriptions{0};
};

}  // namespace tavix::settings::server
