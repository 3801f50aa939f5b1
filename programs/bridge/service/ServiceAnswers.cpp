#include "programs/bridge/service/Service.h"
#include "programs/common/MetricsText.h"

// What a bridge shows of itself.
namespace tavix::bridge {

namespace {

const char* NameOf(Link::State state, bool wasEverConnected) {
  switch (state) {
    case Link::State::kConnected:
      return "connected";
    case Link::State::kConnecting:
      return "connecting";
    default:
      return wasEverConnected ? "lost" : "connecting";
  }
}

}  // namespace

std::string Service::Answer(const std::string& request) {
  if (request == "status") return ComposeStatusAnswer(GetStatus(GetNow()));
  if (request == "conflicts") return ComposeConflictsAnswer(_conflicts, _rules);
  if (request == "diff") return AnswerDiff();
  if (request.rfind("sync ", 0) == 0) return AnswerSync(request.substr(5));
  return ComposeError("the request is unknown");
}

std::string Service::AnswerDiff() {
  if (!_mirror) return ComposeError("the state can't be opened: " + _report.GetLastError());
  if (!_daemon.IsConnected()) return ComposeError("there is no connection to the daemon");
  DifferencesAnswer answer;
  try {
    _mirror->FindDifferences([&answer](const GroupDifference& difference) { return answer.Add(difference); });
  } catch (const LocalLost& lost) {
    OnDaemonLost(lost.what(), GetNow());
    return ComposeError(std::string("the daemon can't be asked: ") + lost.what());
  }
  return answer.Compose();
}

std::string Service::AnswerSync(const std::string& how) {
  if (!_mirror) return ComposeError("the state can't be opened: " + _report.GetLastError());
  const MirrorState state = _mirror->GetState();
  if (how == "accept") {
    _mirror->AcceptLosses();
    return ComposeDone(state.held);
  }
  if (how != "from=centre" && how != "from=device") return ComposeError("the request is unknown");
  _mirror->Decide(how == "from=centre" ? Side::kCentre : Side::kDevice);
  return ComposeDone(state.undecided);
}

BridgeStatus Service::GetStatus(Milliseconds now) const {
  const MirrorState state = GetMirrorState();
  BridgeStatus status;
  status.name = _configuration.name;
  status.engine = _kind.GetSection();
  status.isInSync = state.isInSync;
  status.link = NameOf(_link.GetState(), _wasEverConnected);
  status.since = std::time(nullptr) - static_cast<std::time_t>((now - _link.GetSince()).count() / 1000);
  status.isDaemonConnected = _daemon.IsConnected();
  if (_waitingSince) status.lag = static_cast<unsigned long long>((now - *_waitingSince).count()) / 1000;
  status.waiting = state.waiting;
  status.conflicts = _conflicts.size();
  status.overridden = _report.counters.overridden;
  status.refused = _report.counters.refused;
  status.held = state.held;
  status.undecided = state.undecided;
  status.leftOut = state.left;
  status.lastError = _report.GetLastError();
  status.lastErrorTime = _lastErrorTime;
  return status;
}

std::string Service::ComposeMetrics() const {
  const BridgeStatus status = GetStatus(GetNow());
  const Report::Counters& counters = _report.counters;
  programs::MetricsText text;
  const auto gauge = [&](const char* name, const char* help, unsigned long long value) {
    text.BeginGauge(name, help);
    text.Add(value, {{"bridge", status.name}, {"engine", status.engine}});
  };
  const auto counter = [&](const char* name, const char* help, unsigned long long value) {
    text.BeginCounter(name, help);
    text.Add(value, {{"bridge", status.name}, {"engine", status.engine}});
  };
  gauge("bridge_in_sync", "Whether both ends are alike.", status.isInSync ? 1 : 0);
  gauge("bridge_link_connected", "Whether there is a link to the store outside.", status.link == "connected" ? 1 : 0);
  gauge("bridge_daemon_connected", "Whether there is a connection to the daemon.", status.isDaemonConnected ? 1 : 0);
  gauge("bridge_groups", "Groups that are mirrored.", GetMirrorState().groups);
  gauge("bridge_waiting", "What is to be sent or applied.", status.waiting);
  gauge("bridge_lag_seconds", "For how long something has been waiting without a pause.", status.lag);
  gauge("bridge_held", "Groups whose losses a person has to accept.", status.held);
  gauge("bridge_undecided", "What a person has to decide about first.", status.undecided);
  gauge("bridge_left_out", "Groups and documents that can't be taken as they are.", status.leftOut);
  counter("bridge_sent_total", "Messages that arrived outside.", counters.sent);
  counter("bridge_applied_total", "Changes from outside that were made.", counters.applied);
  counter("bridge_overridden_total", "Values that lost against the other end's.", counters.overridden);
  counter("bridge_refused_total", "What one end did not take from the other.", counters.refused);
  counter("bridge_stale_total", "Documents of a version that was passed already.", counters.stale);
  counter("bridge_unsupported_total", "Removals that the daemon is too old for.", counters.unsupported);
  counter("bridge_retried_total", "Writes that others got ahead of.", counters.retried);
  return text.GetText();
}

}  // namespace tavix::bridge
