#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "programs/bridge/core/Admission.h"
#include "programs/bridge/core/DocumentBook.h"
#include "programs/bridge/core/DocumentStep.h"
#include "programs/bridge/core/GovernedKeys.h"
#include "programs/bridge/core/ILocalStore.h"
#include "programs/bridge/core/LossGuard.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Publications.h"
#include "programs/bridge/core/RefusedPuts.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/core/Rules.h"
#include "programs/bridge/core/SendSchedule.h"
#include "programs/bridge/core/StateRetry.h"
#include "programs/bridge/formats/DeviceMessages.h"
#include "programs/bridge/formats/Topics.h"

namespace tavix::bridge {

// How a device presents itself. A plain value.
struct DeviceIdentity {
  std::string root;
  std::string device;
  std::string deviceClass;  // may be empty
  std::string version;      // of the program
  std::string newEpoch;     // of the state, if it is new: random
};

// A device as a centre sees and changes it, by an engine without versions, where each topic has one writer.
//
//     desired     the centre's documents: what keys are to be. They are checked, kept, applied as one step each, and a
//                 result is published of each
//     reported    the groups as readers see them, a topic each, by versions that only grow
//     index       a hash over these versions, published behind them. Another one found after a connect means that the
//                 broker lost or kept something: all of it is compared then
//     status      what is counted; the last will says that nobody is there
//
// Threads: one.
class DeviceMirror : public Mirror {
 public:
  static constexpr size_t kReportedFailures = 3;    // of a document that the device does not take: then it is refused
  static constexpr Milliseconds kMarkWait{10'000};  // until the mark is asked for again

  // All but the identity outlive the object.
  DeviceMirror(const Rules& rules, const Limits& limits, const DeviceIdentity& identity, Engine& engine,
               ILocalStore& local, IStateStore& state, Report& report);

  ConnectOptions GetConnectOptions() const override;
  void OnEvent(const EngineEvent& event, Milliseconds now) override;
  void OnLocalReady() override;
  void OnLocalLost() override;
  void OnLocalChanged(const std::set<std::string>& groups) override;
  void Run(Milliseconds now) override;
  std::optional<Milliseconds> GetNext(Milliseconds now) const override;
  void AcceptLosses() override;
  void Decide(Side side) override;
  void CompareAgain() override;
  MirrorState GetState() const override;
  void FindDifferences(const TakeDifference& take) override;

 private:
  // What a link knows of the other end, in this order.
  enum class Phase {
    kUnlinked,
    kReading,    // documents and the index are still coming
    kComparing,  // the own groups are read there, too
    kFollowing,  // everything is known
  };

  void OnConnected(Milliseconds now);
  void OnLost();
  void OnItem(const Item& item, Milliseconds now);
  void OnSynced(Milliseconds now);
  void OnPutDone(const PutDone& done, Milliseconds now);
  void TakeDocument(const DocumentName& name, const std::optional<std::string>& bytes, Milliseconds now);
  void Refuse(const DocumentName& name, const Result& result);
  bool CheckDocument(const DesiredDocument& document, Result& result) const;
  std::string FindObstacle(const std::string& group) const;
  std::string FindObstacle(const std::string& group, const std::string& key) const;
  void TakeDesiredIndex(const std::optional<std::string>& bytes, Milliseconds now);
  void ReleaseMissing();
  void AskForMissing(Milliseconds now);
  void AskForFitting();
  void AskFor(const std::vector<std::string>& topics);
  void AwaitMark(Milliseconds now);
  std::vector<std::string> ListOthers() const;
  void FollowAll(bool isComparing);
  void Enter(Phase phase, Milliseconds now);
  void FinishComparing(Milliseconds now);

  void Work(Milliseconds now);
  void AdvanceDocuments(Milliseconds now);
  void SetTargets(const std::set<DocumentName>& fresh);
  void ForgetAttempts(const DocumentName& name);
  void Govern(Milliseconds now);
  void AddDue(Milliseconds now);
  void AddWholeDocuments();
  std::set<DocumentName> GovernOnce(Milliseconds now);
  PresentKeys ReadPresent();
  std::map<DocumentName, DocumentStep> PlanSteps(const PresentKeys& present);
  void PlanKey(const std::string& group, const std::string& key, const PresentKeys& present,
               std::map<DocumentName, DocumentStep>& steps);
  std::optional<GovernedKey> FindLast(const std::string& group, const std::string& key, bool isOfUser,
                                      const std::optional<std::string>& shown) const;
  static void AddToStep(DocumentStep& step, const std::string& group, const std::string& key,
                        const std::optional<std::string>& shown, const std::optional<std::string>& value);
  void KeepDevices(const std::string& group, const std::string& key, const std::optional<std::string>& shown);
  bool CarryOut(const DocumentName& name, const DocumentStep& step, Milliseconds now);
  void ReleaseHeld(const std::map<DocumentName, DocumentStep>& steps);
  bool IsHeld(const DocumentName& name, const DocumentStep& step, Milliseconds now);
  settings::Amendment WithoutUnsupported(const DocumentName& name, const settings::Amendment& amendment);
  void SetIntent(const DocumentName& name, const DocumentStep& step);
  void Block(const DocumentName& name, Milliseconds now);
  static std::set<std::string> GroupsOf(const DocumentStep& step);
  void RecordApplied(const DocumentStep& step);
  void MakeResults();
  void AddKeysToResults(std::map<DocumentName, Result>& results) const;

  void QueueAll();
  void Confirm();
  void RetryRefused(Milliseconds now);
  void SendDue(Milliseconds now);
  void AddFitting();
  bool SendTopic(const std::string& topic, Milliseconds now);
  bool SendReported(const std::string& group, Milliseconds now);
  bool SendResult(const std::string& topic, Milliseconds now);
  void SendIndex(Milliseconds now);
  void SendStatus(Milliseconds now);
  bool Put(const std::string& topic, const std::optional<std::string>& bytes, const PutOptions& options,
           Milliseconds now);
  bool CanPut() const { return !_isEngineFull && _schedule.CountInFlight() < _limits.maxInFlight; }
  std::string GetStatusState() const;
  std::map<std::string, unsigned long long> GetFigures() const;
  bool IsIdle() const;
  GroupDifference CompareWithTargets(const std::string& group, const core::IniFile& settings) const;

  const Rules& _rules;
  const Limits _limits;
  const DeviceIdentity _identity;
  const Topics _topics;
  Engine& _engine;
  ILocalStore& _local;
  Report& _report;
  DocumentBook _book;
  GovernedKeys _governed;
  Publications _publications;
  StateRetry _retry;
  LossGuard _guard;
  Admission _admission;
  SendSchedule _schedule;  // of topics

  Phase _phase = Phase::kUnlinked;
  std::optional<Milliseconds> _phaseSince;  // or since the mark was asked for again
  int _marksAsked = 0;                      // again, in this phase
  bool _isEngineFull = false;               // it took no put; until something happens
  bool _isLocalReady = false;
  bool _isToQueue = false;                                      // all groups are to be looked at
  std::set<DocumentName> _arrived;                              // documents that came over this link
  std::optional<std::map<std::string, std::uint64_t>> _listed;  // documents that the centre has, and their versions
  std::optional<Milliseconds> _missingSince;                    // listed ones may be missing
  std::optional<std::string> _foundIndex;                       // what stands there
  std::map<std::string, std::optional<ReportedGroup>> _found;   // topics that stand there; nothing: in another form
  std::set<std::string> _forced;                                // topics that are sent whatever was sent before
  std::map<std::string, std::optional<std::uint64_t>> _unconfirmed;  // results on their way; nothing: removed
  std::map<std::string, std::optional<std::uint64_t>> _confirmed;    // that arrived, and are not on the disk yet
  RefusedPuts _refusedPuts;
  std::set<std::string> _live;  // groups that the device has

  Targets _targets;
  std::map<DocumentName, std::set<std::string>> _groupsOf;  // that a document decides keys of
  std::set<std::string> _ungoverned;                        // groups that are to be looked at
  std::map<DocumentName, BlockedDocument> _blocked;
  std::map<std::string, std::set<std::string>> _undecided;  // keys by group
  std::map<std::string, Side> _decided;                     // by a person, by keys as they are spelled
  std::set<DocumentName> _heldDocuments;
  std::set<DocumentName> _acceptedDocuments;                // whose losses a person accepted
  std::map<DocumentName, std::vector<Conflict>> _reported;  // of steps that are not done yet
  std::map<DocumentName, std::map<std::string, std::string>> _unsupported;
  std::map<DocumentName, Result> _refused;      // documents that can't be taken
  std::map<DocumentName, size_t> _crowdedOut;   // of these, for want of room: their bytes
  bool _mayHaveRoom = false;                    // documents changed since there was none
  std::map<std::string, std::string> _results;  // by the document's name, as they are to be published
  bool _areResultsDue = false;

  std::string _sentStatus;
  std::string _sentState;
  Milliseconds _statusAt{0};
};

}  // namespace tavix::bridge
