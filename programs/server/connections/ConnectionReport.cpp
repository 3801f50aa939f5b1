#include "programs/server/connections/ConnectionReport.h"

#include "programs/server/connections/CutText.h"
#include "programs/server/connections/LogPeer.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Connection");
  return logger;
}

}  // namespace

ConnectionReport::ConnectionReport(const Peer& peer, Counters& counters, const Limits& limits)
    : _counters(counters), _limits(limits), _peer(peer.name), _logPeer(peer.lasting) {}

void ConnectionReport::Connect() noexcept {
  Inform("connected");
}

void ConnectionReport::Disconnect() noexcept {
  Inform("disconnected");
}

void ConnectionReport::Inform(const char* what) const noexcept {
  try {
    Log()->Information("%s: %s", _peer.c_str(), what);
  } catch (const std::exception&) {
  }
}

void ConnectionReport::Cut(CutReason reason, size_t figure, std::string_view sent) noexcept {
  // Each reason is bounded apart in the log: many cuts for one of them must not hide another.
  const LogPeer peer(_logPeer, static_cast<int>(reason));
  _hasEnd = true;
  _counters.Count(reason);
  try {
    Log()->Warning("%s: connection cut: %s %zu%s", _peer.c_str(), TextOf(reason), figure,
                   DescribeSent(reason, sent, _limits).c_str());
  } catch (const std::exception&) {
  }
}

void ConnectionReport::Fail(const std::exception& exception) noexcept {
  const LogPeer peer(_logPeer);
  _hasEnd = true;
  _counters.Count(CutReason::kError);
  try {
    Log()->Warning("%s: connection ended: %s", _peer.c_str(), exception.what());
  } catch (const std::exception&) {
  }
}

void ConnectionReport::Refuse(const settings::server::RefusedChange& refusal) {
  const LogPeer peer(_logPeer);
  _counters.Count(refusal.GetReason());
  Log()->Warning("%s: change refused: %s", _peer.c_str(), refusal.what());
}

void ConnectionReport::Change(const std::vector<std::string>& lines) {
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i == 0) {
      Log()->Information("%s: %s", _peer.c_str(), lines[i].c_str());
    } else {
      Log()->Trace("%s: %s", _peer.c_str(), lines[i].c_str());
    }
  }
}

}  // namespace tavix::daemon
