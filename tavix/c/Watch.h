#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "tavix/c/WakeDescriptor.h"
#include "tavix/c/WatchedContent.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::c {

// Follows groups of a store over a connection of its own, which comes back:
//
//     connected     Notices are taken.
//     disconnected  The connection was lost, or what it brought can't be used. At the next attempt a new one is made:
//                   subscribe first, then read, so that nothing is missed. Attempts come after 0.1 s, doubling to 5 s,
//                   each up to a half less, so that those who were disconnected together don't come back together.
//
// Everything happens inside of the calls.
//
// Threads: one.
// Errors:  of the constructor ProtocolException, too. Later std::bad_alloc and CallFailure alone: then the next call
//          goes on, over a new connection if need be.
// Owns:    connection, content, and the descriptor for poll(2).
class Watch {
 public:
  using Clock = std::chrono::steady_clock;
  using Names = std::set<std::string>;

  // Connects, subscribes and reads. reportsFirst: what is read at first is reported as changes.
  Watch(const settings::client::ProtocolOptions& options, Names names, bool reportsFirst);

  // For poll(2): readable when AwaitChange may have something to do. The same for good.
  int GetDescriptor();

  // The next change; nothing at "end". None: it waits for ever.
  std::optional<WatchedChange> AwaitChange(std::optional<Clock::time_point> end);

  // Why there is no connection; empty when there is one.
  const std::string& GetFailure() const { return _failure; }

 private:
  // Sets when the descriptor wakes, however a call ends.
  class WakeGuard {
   public:
    explicit WakeGuard(Watch& watch) : _watch(watch) {}
    ~WakeGuard() {
      if (_watch._wake) _watch.SetWake();
    }

    WakeGuard(const WakeGuard&) = delete;
    WakeGuard& operator=(const WakeGuard&) = delete;

   private:
    Watch& _watch;
  };

  bool Step(std::optional<Clock::time_point> end);
  void TakeReceived();
  bool TakeNotice(std::optional<Clock::time_point> end);
  bool ComeBack(std::optional<Clock::time_point> end);
  void Connect();
  void Drop(const char* reason);
  void SetWake() noexcept;

  const settings::client::ProtocolOptions _options;
  const Names _names;
  WatchedContent _content;
  std::unique_ptr<settings::client::ProtocolClient> _connection;
  bool _mayHaveMore = false;  // notices that were received and not taken
  std::optional<WakeDescriptor> _wake;
  std::chrono::milliseconds _delay;  // before the next attempt but one
  Clock::time_point _nextAttempt;
  std::string _failure;
};

}  // namespace tavix::c
