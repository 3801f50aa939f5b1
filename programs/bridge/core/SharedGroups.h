#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "programs/bridge/core/ILocalStore.h"
#include "programs/bridge/core/LossGuard.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/core/Rules.h"
#include "programs/bridge/core/SendSchedule.h"
#include "programs/bridge/core/SharedPlan.h"
#include "programs/bridge/core/SharedState.h"

namespace tavix::bridge {

// Groups that several devices share, by an engine that compares and puts: a key a group, its bytes the group whole.
//
// A group that changed at either end is dirty: it is read, merged three-way by key over what was agreed last, applied
// here and, when its turn comes, put there. What is read is always what the store holds now, and what is compared is
// what was agreed. So a change that came from there is no change of the device, however late its notice is.
//
// Threads: one.
class SharedGroups : public Mirror {
 public:
  // prefix: of the keys, without the '/' that follows. All others outlive the object. seed: another one for each
  // device.
  SharedGroups(const Rules& rules, const Limits& limits, const std::string& prefix, Engine& engine, ILocalStore& local,
               IStateStore& state, Report& report, uint64_t seed);

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
  // What came from there and was not agreed yet.
  struct Remote {
    Keys keys;
    Version version = 0;
    bool isThere = false;
    bool isReadable = true;
  };

  // A group that was looked at, with what is to become of it.
  struct Planned {
    std::string group;
    SharedView view;
    SharedPlan plan;
  };

  void OnConnected(const Connected& connected);
  void OnLost();
  void OnItem(const Item& item, Milliseconds now);
  void OnSynced(const Synced& synced);
  void OnPutDone(const PutDone& done, Milliseconds now);
  Remote ReadItem(const std::string& group, const Item& item);

  bool CanWork() const { return _isLinked && _isSynced && _isLocalReady; }
  bool Admit(const std::string& group, const Keys& keys);
  void CompareAll();
  void Reconcile(Milliseconds now);
  std::vector<Planned> PlanDirty();
  Planned PlanGroup(const std::string& group, const Keys& device);
  Keys ReadGroup(const std::string& group);
  Keys WithoutMasked(const std::string& group, const Keys& keys) const;
  void HoldLosses(std::vector<Planned>& batch, Milliseconds now);
  void WriteIntents(const std::vector<Planned>& batch);
  bool Apply(const Planned& planned);
  void Settle(const Planned& planned, Milliseconds now);
  void SendDue(Milliseconds now);
  bool Send(const Planned& planned, Milliseconds now);
  void KeepFollowed();
  Version GetVersion(const std::string& group) const;
  Milliseconds FindRetry(const std::string& group, Milliseconds now);

  const Rules& _rules;
  const Limits _limits;
  const std::string _prefix;
  Engine& _engine;
  ILocalStore& _local;
  Report& _report;
  SharedState _state;
  LossGuard _guard;
  SendSchedule _schedule;
  std::mt19937_64 _random;

  bool _isLinked = false;
  bool _isSynced = false;  // everything that there is has been reported
  bool _isLocalReady = false;
  bool _isToCompare = false;    // all groups are to be looked at
  std::string _source;          // of the link
  Version _followed = 0;        // everything up to it came in
  std::set<std::string> _seen;  // groups that came since the link was made, until everything has

  std::map<std::string, size_t> _admitted;  // the groups that are mirrored, and their bytes
  size_t _admittedBytes = 0;
  std::set<std::string> _leftOut;
  std::map<std::string, Remote> _remote;
  std::map<std::string, Keys> _sent;     // puts without their reply
  std::map<std::string, Keys> _refused;  // what the other end did not take
  std::map<std::string, size_t> _attempts;
  std::set<std::string> _dirty;
  std::map<std::string, Milliseconds> _blocked;            // groups that can't be changed here, and when to try again
  std::map<std::string, std::vector<Conflict>> _reported;  // of changes that are not made yet
  std::set<std::string> _undecided;
  std::set<std::string> _unsupported;  // groups with removals that the daemon can't do
  std::optional<Side> _decision;
};

}  // namespace tavix::bridge
