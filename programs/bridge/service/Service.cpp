#include "programs/bridge/service/Service.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <set>
#include <utility>
#include <variant>
#include <vector>

#include "programs/bridge/ExitCode.h"
#include "programs/bridge/service/RandomNumber.h"
#include "programs/common/Deadline.h"
#include "programs/common/client/Join.h"
#include "tavix/core/Logger.h"

// The loop. ServiceAnswers.cpp has what is shown of it.
namespace tavix::bridge {

namespace {

constexpr Milliseconds kMaxWait{60'000};
constexpr Milliseconds kMaxEnd{4'000};  // of the engine
constexpr Milliseconds kStateRetry{10'000};
constexpr Milliseconds kMinFeed{10};
constexpr Milliseconds kMaxUnread{200};
constexpr int kReadsInAnInterval = 10;                 // of notices, in that of a group's messages
constexpr int kFeedsInATime = 4;                       // one that comes late is no reason to be restarted
constexpr size_t kMaxEvents = EventQueue::kMaxEvents;  // of one round

std::string GetSocketPath(const Configuration& configuration) {
  return programs::Join({configuration.runtime, "/bridge-", configuration.name, ".sock"});
}

std::unique_ptr<Engine> MakeEngine(const EngineKind& kind, const Configuration& configuration, EventQueue& events) {
  try {
    return kind.MakeEngine(configuration, events);
  } catch (const osa::Exception& error) {
    throw ConfigurationError(programs::Join({"[", kind.GetSection(), "]: ", error.what()}));
  }
}

}  // namespace

Service::Service(const EngineKind& kind, const Configuration& configuration, const Options& options,
                 const programs::ServiceManager& serviceManager, const programs::Signals& signals)
    : _kind(kind),
      _configuration(configuration),
      _serviceManager(serviceManager),
      _signals(signals),
      _rules(configuration.maps, configuration.never, configuration.mask),
      _report(configuration.limits, _rules,
              [this](Severity severity, const std::string& line) { Log(severity, line); }),
      _engine(MakeEngine(kind, configuration, _events).release()),
      _link(configuration.limits, *_engine, MakeRandomNumber()),
      _store(configuration.server, _rules.GetPatterns(), {}, [this] { BeforeCall(); }),
      _daemon(_store, MakeRandomNumber()),
      _control(
          GetSocketPath(configuration), [this](const std::string& request) { return Answer(request); },
          ComposeError("the request is too long")),
      _metricsInterval(options.metricsInterval) {
  if (!options.metricsFile.empty()) _metrics.emplace(options.metricsFile, [this] { return ComposeMetrics(); });
  const auto watchdog = std::chrono::duration_cast<Milliseconds>(_serviceManager.GetWatchdogTime());
  if (watchdog > Milliseconds(0)) _feedInterval = std::max(kMinFeed, watchdog / kFeedsInATime);
}

// All that counts is on the disk, and nobody finds the bridge any more.
void Service::EndEngine::operator()(Engine* engine) const {
  const ExitCode code = std::uncaught_exceptions() > 0 ? kExitFailure : kExitDone;
  const programs::Deadline deadline(kMaxEnd, [code] {
    core::Logger::GetLogger("Bridge")->Warning("The bridge ends without its link, which does not end in time");
    _exit(code);
  });
  const std::unique_ptr<Engine> ending(engine);
}

Milliseconds Service::GetNow() const {
  return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - _start);
}

void Service::Log(Severity severity, const std::string& line) {
  static const core::Logger* const logger = core::Logger::GetLogger("Bridge");
  if (severity == Severity::kInfo) logger->Information("%s", line.c_str());
  if (severity == Severity::kWarning) logger->Warning("%s", line.c_str());
  if (severity != Severity::kError) return;
  logger->Error("%s", line.c_str());
  _lastErrorTime = std::time(nullptr);
}

// A failure that goes on is logged when it begins, and when it becomes another one.
void Service::FailOnce(std::string& last, const std::string& reason) {
  if (last == reason) return;
  last = reason;
  _report.Fail(reason);
}

void Service::Run() {
  _report.Info(programs::Join({"The bridge '", _configuration.name, "' begins, with ", _kind.GetSection()}));
  OpenState(GetNow());
  _serviceManager.Notify("READY=1");
  while (TakeSignals()) {
    const Milliseconds now = GetNow();
    if (std::exchange(_isToCompareAgain, false) && _mirror) _mirror->CompareAgain();
    Work(now);
    DoChores(now);
    Wait(now);
  }
  _serviceManager.Notify("STOPPING=1");
  _report.Info(programs::Join({"The bridge '", _configuration.name, "' ends"}));
}

// Whether the program goes on.
bool Service::TakeSignals() {
  for (auto signal = _signals.Take(); signal.number != 0; signal = _signals.Take()) {
    if (signal.number == SIGTERM || signal.number == SIGINT) _isEnding = true;
    if (signal.number == SIGHUP) _isToCompareAgain = true;
    if (signal.number == SIGUSR1) _nextMetrics = Milliseconds(0);
  }
  return !_isEnding;
}

// Work that takes many calls, each of them slow, delays neither the end nor the watchdog by more than one of them.
void Service::BeforeCall() {
  if (!TakeSignals()) throw LocalLost("the bridge ends");
  FeedWatchdog(GetNow());
}

void Service::Work(Milliseconds now) {
  OpenState(now);
  if (_mirror) {
    TakeEvents(now);
    FollowDaemon(now);
    if (_link.GetState() == Link::State::kWaiting) _link.Run(_mirror->GetConnectOptions(), now);
    RunMirror(now);
  }
  Observe(now);
  _control.Run(GetNow());  // calls of the daemon may have taken seconds
  TakeNotices(now);        // what came with replies does not wake a wait
}

void Service::OpenState(Milliseconds now) {
  if (_mirror || now < _nextOpen) return;
  try {
    _state = std::make_unique<StateFile>(_configuration.state);
    if (!_state->GetDamage().empty()) {
      _report.Fail(programs::Join({"The state '", _configuration.state,
                                   "' is put aside, and everything synchronized as new: ", _state->GetDamage()}));
    }
    _mirror = _kind.MakeMirror(_configuration, {_rules, *_engine, _store, *_state, _report});
    if (!_stateFailure.empty()) _report.Info("The state can be opened again");
  } catch (const StateInUse& error) {
    throw ConfigurationError(error.what());
  } catch (const osa::Exception& error) {
    _state.reset();
    _nextOpen = now + kStateRetry;
    FailOnce(_stateFailure, error.what());
  }
}

void Service::TakeEvents(Milliseconds now) {
  for (size_t count = 0; count < kMaxEvents; ++count) {
    const std::optional<EngineEvent> event = _events.TryPop();
    if (!event) return;
    OnEvent(*event, now);
  }
}

void Service::OnEvent(const EngineEvent& event, Milliseconds now) {
  _link.OnEvent(event, now);
  _mirror->OnEvent(event, now);
  if (std::holds_alternative<Connected>(event)) {
    _wasEverConnected = true;
    _linkFailure.clear();
    _report.Info("The link is there");
  } else if (std::holds_alternative<Lost>(event)) {
    FailOnce(_linkFailure, "There is no link: " + _link.GetLastReason());
  }
}

void Service::FollowDaemon(Milliseconds now) {
  const bool wasConnected = _daemon.IsConnected();
  if (_daemon.Run(now)) {
    _daemonFailure.clear();
    _report.Info("The daemon is there");
    _mirror->OnLocalReady();
  } else if (!wasConnected && !_isEnding && !_daemon.GetLastReason().empty()) {
    FailOnce(_daemonFailure, "The daemon can't be asked: " + _daemon.GetLastReason());
  }
  TakeNotices(now);
}

void Service::TakeNotices(Milliseconds now) {
  if (!_mirror || !_daemon.IsConnected()) return;
  try {
    const std::set<std::string> changed = _store.TakeChanged();
    if (changed.empty()) return;
    _mirror->OnLocalChanged(changed);
    _nextNotices = now + std::min(kMaxUnread, _configuration.limits.groupInterval / kReadsInAnInterval);
  } catch (const LocalLost& lost) {
    OnDaemonLost(lost.what(), now);
  }
}

void Service::RunMirror(Milliseconds now) {
  try {
    _mirror->Run(now);
  } catch (const LocalLost& lost) {
    OnDaemonLost(lost.what(), now);
  }
}

void Service::OnDaemonLost(const std::string& reason, Milliseconds now) {
  if (_isEnding) return;
  _daemon.OnLost(reason, now);
  _mirror->OnLocalLost();
  FailOnce(_daemonFailure, "The daemon can't be asked: " + reason);
}

// What the mirror has found since the last round.
void Service::StampConflicts() {
  const std::deque<Conflict>& found = _report.GetConflicts();
  const auto all = _report.counters.overridden;
  const size_t fresh = static_cast<size_t>(std::min<unsigned long long>(all - _stampedConflicts, found.size()));
  for (auto conflict = found.end() - static_cast<std::ptrdiff_t>(fresh); conflict != found.end(); ++conflict) {
    _conflicts.push_back({*conflict, std::time(nullptr)});
  }
  _stampedConflicts = all;
  while (_conflicts.size() > found.size()) _conflicts.pop_front();
}

void Service::Observe(Milliseconds now) {
  StampConflicts();
  if (GetMirrorState().waiting == 0) {
    _waitingSince.reset();
  } else if (!_waitingSince) {
    _waitingSince = now;
  }
}

void Service::DoChores(Milliseconds now) {
  if (_metrics && now >= _nextMetrics) {
    _metrics->Write();
    _nextMetrics = now + _metricsInterval;
  }
  FeedWatchdog(now);
}

void Service::FeedWatchdog(Milliseconds now) {
  if (_feedInterval == Milliseconds(0) || now < _nextFeed) return;
  const char* const state = GetMirrorState().isInSync ? "in sync" : "not in sync";
  _serviceManager.Notify(std::string("WATCHDOG=1\nSTATUS=") + state);
  _nextFeed = now + _feedInterval;
}

Milliseconds Service::FindNext(Milliseconds now) const {
  if (_isEnding || _isToCompareAgain) return now;  // signals that came during a call
  Milliseconds next = now + kMaxWait;
  const auto consider = [&next](std::optional<Milliseconds> time) {
    if (time) next = std::min(next, *time);
  };
  consider(_control.GetNext());
  if (_metrics) consider(_nextMetrics);
  if (_feedInterval > Milliseconds(0)) consider(_nextFeed);
  if (!_mirror) {
    consider(_nextOpen);
    return next;
  }
  consider(_mirror->GetNext(now));
  consider(_link.GetNext());
  consider(_daemon.GetNext());
  if (_store.HasMore()) consider(now);
  if (_nextNotices > now) consider(_nextNotices);
  return next;
}

void Service::Wait(Milliseconds now) {
  std::vector<pollfd> watched{{_signals.GetDescriptor(), POLLIN, 0}};
  if (_mirror) watched.push_back({_events.GetDescriptor(), POLLIN, 0});
  if (_mirror && _daemon.IsConnected() && now >= _nextNotices) watched.push_back({_store.GetDescriptor(), POLLIN, 0});
  _control.AddTo(watched);
  const Milliseconds wait = std::max(Milliseconds(0), FindNext(now) - GetNow());
  // A moment more, as what is due at the end of a millisecond is not due within it.
  const Milliseconds more = wait > Milliseconds(0) ? wait + Milliseconds(1) : wait;
  poll(watched.data(), watched.size(), static_cast<int>(more.count()));
}

}  // namespace tavix::bridge
