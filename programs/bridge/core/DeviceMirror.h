#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "programs/bridge/core/DocumentBook.h"
#include "programs/bridge/core/GovernedKeys.h"
#include "programs/bridge/core/ILocalStore.h"
#include "programs/bridge/core/LossGuard.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Publications.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/core/Rules.h"
#include "programs/bridge/core/SendSchedule.h"
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

 private:
  // What a link knows of the other end.
  enum class Phase {
    kUnlinked,
    kReading,    // documents and the index are still coming
    kComparing,  // the own groups are read there, too
    kFollowing,  // everything is known
  };

  // What a document does to keys, and on what condition.
  struct Step {
    settings::Amendment amendment;
    std::vector<std::pair<std::string, std::string>> keys;  // groups and keys that it decides
    std::set<std::string> losing;                           // groups that lose values
    std::vector<Conflict> conflicts;
  };

  void OnItem(const Item& item, Milliseconds now);
  void OnSynced(const Synced& synced, Milliseconds now);
  void OnPutDone(const PutDone& done);
  void TakeDocument(const DocumentName& name, const std::optional<std::string>& bytes, Milliseconds now);
  void Refuse(const DocumentName& name, const Result& result);
  bool CheckDocument(const DesiredDocument& document, Result& result) const;
  void TakeDesiredIndex(const std::optional<std::string>& bytes);
  void ReleaseMissing();
  void AskForMissing(Milliseconds now);
  std::vector<std::string> ListOthers() const;
  void FollowAll(bool isComparing);
  void FinishComparing();

  void AdvanceDocuments(Milliseconds now);
  void Govern(Milliseconds now);
  bool GovernOnce(Milliseconds now);
  std::map<DocumentName, Step> PlanSteps(const core::IniFile& settings);
  void PlanKey(const std::string& group, const std::string& key, const Target& target,
               const std::optional<std::string>& shown, std::map<DocumentName, Step>& steps);
  void KeepDevices(const std::string& group, const std::string& key, const Target& target,
                   const std::optional<std::string>& shown);
  bool CarryOut(const DocumentName& name, const Step& step, Milliseconds now);
  void RecordApplied(const Step& step);
  void MakeResults();

  void QueueAll();
  void SendDue(Milliseconds now);
  bool SendReported(const std::string& group, Milliseconds now);
  bool SendResult(const std::string& name, Milliseconds now);
  void SendIndex();
  void SendStatus(Milliseconds now);
  std::string GetStatusState() const;
  std::map<std::string, unsigned long long> GetFigures() const;
  bool IsIdle() const;
  bool Admit(const std::string& group, size_t bytes);

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
  LossGuard _guard;
  SendSchedule _schedule;  // of topics

  Phase _phase = Phase::kUnlinked;
  bool _isLocalReady = false;
  bool _isToQueue = false;                       // all groups are to be looked at
  std::set<DocumentName> _seen;                  // documents that came over this link
  std::map<std::string, std::uint64_t> _listed;  // documents that the centre has, and their versions
  std::optional<Milliseconds> _syncedAt;
  bool _isMissingAsked = false;
  std::optional<std::string> _foundIndex;                      // what stands there
  std::map<std::string, std::optional<ReportedGroup>> _found;  // topics that stand there; nothing: in another form
  std::set<std::string> _toClear;                              // topics that nobody needs
  std::set<std::string> _forced;                               // topics that are sent whatever was sent before

  Targets _targets;
  std::set<std::string> _ungoverned;              // groups that are to be looked at
  std::map<DocumentName, Milliseconds> _blocked;  // documents that can't be applied, and when to try again
  std::set<std::string> _undecided;               // keys, as they are spelled
  std::set<DocumentName> _heldDocuments;
  std::map<DocumentName, std::map<std::string, std::string>> _unsupported;
  std::map<DocumentName, Result> _refused;      // documents that can't be taken
  std::map<std::string, std::string> _results;  // by the document's name, as they are to be published
  std::map<std::string, size_t> _admitted;
  size_t _admittedBytes = 0;
  std::set<std::string> _leftOut;
  std::optional<Side> _decision;

  std::string _sentStatus;
  std::string _sentState;
  Milliseconds _statusAt{0};
};

}  // namespace tavix::bridge
