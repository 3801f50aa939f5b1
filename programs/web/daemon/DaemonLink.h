#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "programs/web/http/Refusal.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::web {

// A worker's way to the daemon: one connection, which is made when it is needed and kept for the next work. One attempt
// each, and nothing is sent twice.
//
// Threads: one.
// Errors:  ProtocolException.
class DaemonLink {
 public:
  using Clock = std::chrono::steady_clock;

  // address: as ProtocolOptions has it.
  explicit DaemonLink(std::string address) : _address(std::move(address)) {}

  // Begins the next work, whose calls have to end until then. Drops a connection that the daemon has ended
  // meanwhile: one that is lost during the work is not made anew.
  void Begin(Clock::time_point end);

  // The connection, for one call: its time-out is the time that is left.
  settings::client::ProtocolClient& Get();

  // The same for a call that writes.
  settings::client::ProtocolClient& GetForWrite();

  // Whether the work may have written something, if its last call ended with that error.
  bool MayHaveWritten(const settings::client::ProtocolException& exception) const;

  // The requests that the daemon knows beyond those that all do, by their first words; none: it is too old to report.
  const std::set<std::string>& GetFeatures();

  // Throws Refusal, 501, when the daemon lacks a feature.
  void RequireFeature(const std::string& feature);

 private:
  bool IsStale() const;
  settings::client::ProtocolClient& Connect();

  const std::string _address;
  Clock::time_point _end{};
  bool _hasBegunWrite = false;
  bool _hasWritten = false;  // a call that writes has returned
  std::unique_ptr<settings::client::ProtocolClient> _client;
  std::optional<std::set<std::string>> _features;  // of the connection
};

// The answer to a request whose work the connection to the daemon ended with that error. isWrite: of the request.
Refusal ToRefusal(const settings::client::ProtocolException& exception, bool isWrite, const DaemonLink& link);

}  // namespace tavix::web
