#pragma once

#include <chrono>
#include <ctime>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "programs/bridge/config/Configuration.h"
#include "programs/bridge/control/Answers.h"
#include "programs/bridge/control/ControlSocket.h"
#include "programs/bridge/core/Link.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/engines/Engine.h"
#include "programs/bridge/engines/EventQueue.h"
#include "programs/bridge/local/DaemonLink.h"
#include "programs/bridge/local/DaemonStore.h"
#include "programs/bridge/options/Options.h"
#include "programs/bridge/service/EngineKind.h"
#include "programs/bridge/state/StateFile.h"
#include "programs/common/MetricsFile.h"
#include "programs/common/ServiceManager.h"
#include "programs/common/Signals.h"

namespace tavix::bridge {

// A bridge that runs: one loop around the mirror, which has neither clock nor sockets, the connection to the daemon,
// the engine, which has a thread of its own, and those who ask how it is.
//
// A state that can't be opened, such as on a full disk, is tried again each ten seconds; meanwhile nothing is mirrored
// and questions are answered.
//
// Threads: one.
// Errors:  the constructor throws ConfigurationError for what the engine can't be made with, and osa::Exception for a
//          runtime directory that can't be used. Losses of the daemon and of the link are waited out.
class Service {
 public:
  // kind, configuration and what is passed by reference outlive the service.
  Service(const EngineKind& kind, const Configuration& configuration, const Options& options,
          const programs::ServiceManager& serviceManager, const programs::Signals& signals);

  // Ends the process when the engine does not end in time: a name server that is silent holds up its thread. Then it is
  // done, or has failed if an exception ends the service.
  ~Service() = default;

  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Until SIGTERM or SIGINT; not longer than the call of the daemon takes that is under way. SIGHUP has everything
  // compared again, SIGUSR1 the metrics written. Throws ConfigurationError if the state is that of another bridge.
  void Run();

 private:
  struct EndEngine {
    void operator()(Engine* engine) const;
  };

  Milliseconds GetNow() const;
  void Work(Milliseconds now);
  void OpenState(Milliseconds now);
  void TakeEvents(Milliseconds now);
  void OnEvent(const EngineEvent& event, Milliseconds now);
  void FollowDaemon(Milliseconds now);
  void RunMirror(Milliseconds now);
  void TakeNotices(Milliseconds now);
  void OnDaemonLost(const std::string& reason, Milliseconds now);
  void StampConflicts();
  void Observe(Milliseconds now);
  void DoChores(Milliseconds now);
  void FeedWatchdog(Milliseconds now);
  void Wait(Milliseconds now);
  Milliseconds FindNext(Milliseconds now) const;
  bool TakeSignals();
  void BeforeCall();

  void Log(Severity severity, const std::string& line);
  void FailOnce(std::string& last, const std::string& reason);

  std::string Answer(const std::string& request);
  std::string AnswerDiff();
  std::string AnswerSync(const std::string& how);
  MirrorState GetMirrorState() const { return _mirror ? _mirror->GetState() : MirrorState(); }
  BridgeStatus GetStatus(Milliseconds now) const;
  std::string ComposeMetrics() const;

  const EngineKind& _kind;
  const Configuration& _configuration;
  const programs::ServiceManager& _serviceManager;
  const programs::Signals& _signals;
  const std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
  const Rules _rules;
  Report _report;
  EventQueue _events;
  std::unique_ptr<Engine, EndEngine> _engine;  // ends behind all that follows
  Link _link;
  DaemonStore _store;
  DaemonLink _daemon;
  std::unique_ptr<StateFile> _state;
  std::unique_ptr<Mirror> _mirror;  // none as long as there is no state
  Milliseconds _nextOpen{0};
  Milliseconds _nextNotices{0};  // not read before, as a device that changes all the time wakes nobody all the time
  ControlSocket _control;

  bool _isEnding = false;
  bool _isToCompareAgain = false;
  bool _wasEverConnected = false;  // the link
  std::string _stateFailure;       // that was logged last
  std::string _linkFailure;        // since the last connection
  std::string _daemonFailure;      // likewise
  std::time_t _lastErrorTime = 0;
  std::deque<TimedConflict> _conflicts;
  unsigned long long _stampedConflicts = 0;
  std::optional<Milliseconds> _waitingSince;

  std::optional<programs::MetricsFile> _metrics;
  const Milliseconds _metricsInterval;
  Milliseconds _nextMetrics{0};
  Milliseconds _feedInterval{0};  // of the watchdog; 0: there is none
  Milliseconds _nextFeed{0};
};

}  // namespace tavix::bridge
