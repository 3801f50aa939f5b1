#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Limits.h"
#include "programs/server/system/Peer.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

// Logs and counts what becomes of one connection: that it comes and goes, once why it ends, and each change that its
// client makes or is refused.
//
// Threads: the loop's; but Refuse and Change are called by the thread that handles the request.
// Errors:  a line that can't be written for want of memory is left out, and counted all the same.
class ConnectionReport {
 public:
  ConnectionReport(const Peer& peer, Counters& counters, const Limits& limits);

  // What the log calls the peer.
  const std::string& GetPeer() const { return _peer; }

  // Whom the lines count for that are logged meanwhile, see LogPeer.
  const std::string& GetLogPeer() const { return _logPeer; }

  void Connect() noexcept;
  void Disconnect() noexcept;

  // A bound was passed. sent: what the client sent that passed it, if the line is to show that.
  void Cut(CutReason reason, size_t figure, std::string_view sent = {}) noexcept;

  // Its work threw that.
  void Fail(const std::exception& exception) noexcept;

  void Refuse(const settings::server::RefusedChange& refusal);

  // lines: what was changed, the first in short.
  void Change(const std::vector<std::string>& lines);

  // Whether Cut or Fail was called.
  bool HasEnd() const { return _hasEnd; }

 private:
  void Inform(const char* what) const noexcept;

  Counters& _counters;
  const Limits& _limits;
  const std::string _peer;
  const std::string _logPeer;
  bool _hasEnd = false;
};

}  // namespace tavix::daemon
