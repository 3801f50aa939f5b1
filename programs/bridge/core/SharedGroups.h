#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "programs/bridge/core/Admission.h"
#include "programs/bridge/core/ILocalStore.h"
#include "programs/bridge/core/LossGuard.h"
#include "programs/bridge/core/Mirror.h"
#include "programs/bridge/core/Report.h"
#include "programs/bridge/core/Rules.h"
#include "programs/bridge/core/SendSchedule.h"
#include "programs/bridge/core/SharedPlan.h"
#include "programs/bridge/core/SharedState.h"
#include "programs/bridge/core/StateRetry.h"

namespace tavix::bridge {

// Groups that several devices share, by an engine that compares and puts: a key a group, its bytes the group whole.
//
// A group that changed at either end is dirty: it is read, merged three-way by key over what was agreed last, applied
// here and, when its turn comes, put there. What is read is always what the store holds now, and what is compared is
// what was agreed. So a change that came from there is no change of the device, however late its notice is.
//
// A key that is masked, here or at another device, is merged with nothing: what stands there of it is written back with
// each put, and what the device holds of it stays as it is.
//
// Threads: one.
class SharedGroups : public Mirror {
 public:
  static constexpr size_t kReportedFailures = 3;  // of a change that the device does not take: then it is an error
  static constexpr size_t kMaxLate = 8;           // puts of a group without a known outcome that are remembered
  static constexpr Milliseconds kFollowedInterval{10'000};  // between two writes of how far everything came in

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
  void FindDifferences(const TakeDifference& take) override;

 private:
  // How much is known of the other end.
  enum class Phase {
    kUnlinked,
    kReading,    // the first look of a link: what there is, or what changed since the last link
    kFollowing,  // everything was reported, and changes are
    kRereading,  // something is not known: everything is reported again. Puts of this link may be newer.
  };

  // What came from there and was not agreed yet.
  struct Remote {
    Keys keys;
    HiddenKeys hidden;
    Version version = 0;
    bool isThere = false;
    bool isUsable = true;    // not in another form, and not left out
    bool isLeftOut = false;  // its keys are not remembered
  };

  // A group that was looked at, with what is to become of it.
  struct Planned {
    std::string group;
    SharedView view;
    SharedPlan plan;
    HiddenKeys hidden;
    std::set<std::string> masked;  // of the device's keys
    Keys kept;                     // that the daemon can't remove
  };

  // A put that the other end refused. It is tried again, as an administrator may have changed what it refuses.
  struct Refused {
    Keys keys;
    Milliseconds wait{0};
    Milliseconds next{0};
  };

  // A change that the device did not take.
  struct Blocked {
    size_t failures = 0;  // one after the other
    std::optional<Milliseconds> next;
  };

  void OnConnected(const Connected& connected);
  void OnLost();
  void OnReread();
  void OnItem(const Item& item);
  void OnSynced(const Synced& synced);
  void AddRemovals(Version version);
  void OnPutDone(const PutDone& done, Milliseconds now);
  void OnConflict(const std::string& group, const Item& present);
  void OnRefused(const std::string& group, const Keys& keys, const std::string& reason, Milliseconds now);
  void List(const std::string& group);
  Remote ReadItem(const std::string& group, const Item& item);
  void TakeKeys(const std::string& group, const std::string& bytes, Remote& remote);

  bool CanWork() const { return _phase == Phase::kFollowing && _isLocalReady && !_isPartial; }
  void Work(Milliseconds now);
  void Confirm();
  void CompareAll();
  void Release(const std::string& group);
  void Reconcile(Milliseconds now);
  void AddDue(Milliseconds now);
  void AddFitting();
  void CarryOut(std::vector<Planned>& batch, Milliseconds now);
  std::vector<Planned> PlanDirty();
  bool IsAbsent(const std::string& group, const Keys& device) const;
  Planned PlanGroup(const std::string& group, const Keys& device);
  Planned LookAt(const std::string& group, const Keys& device) const;
  void KeepUnremovable(Planned& planned);
  Keys ReadGroup(const std::string& group);
  void JudgeAll(Milliseconds now);
  static bool IsLosing(const Planned& planned);
  bool MayLose(const std::set<std::string>& losing, Milliseconds now);
  void HoldLosses(std::vector<Planned>& batch, Milliseconds now);
  void WriteIntents(const std::vector<Planned>& batch);
  bool Apply(const Planned& planned);
  void Block(const std::string& group, Milliseconds now);
  void Agree(const Planned& planned);
  void Settle(const Planned& planned, Milliseconds now);

  void SendDue(Milliseconds now);
  bool SendGroup(const std::string& group, Milliseconds now);
  bool IsToSend(const Planned& planned) const;
  bool IsLossAllowed(const Planned& planned) const;
  bool Send(const Planned& planned, Milliseconds now);
  std::optional<std::string> Compose(const Planned& planned) const;
  static size_t CountBytes(const std::string& group, const Keys& keys);
  void KeepFollowed(Milliseconds now);
  bool IsFollowedKept() const;
  std::string GetStoredSource() const { return _binding + _source; }
  std::vector<KeyChanges> FindLate(const std::string& group) const;
  Version GetExpected(const std::string& group) const;
  Version GetLatest(const std::string& group) const;
  Milliseconds FindRetry(const std::string& group, Milliseconds now);

  const Rules& _rules;
  const Limits _limits;
  const std::string _prefix;
  const std::string _binding;  // what else than the source versions are of: the prefix and the groups
  Engine& _engine;
  ILocalStore& _local;
  Report& _report;
  SharedState _state;
  StateRetry _retry;
  LossGuard _guard;
  Admission _admission;
  SendSchedule _schedule;
  std::mt19937_64 _random;

  Phase _phase = Phase::kUnlinked;
  bool _isLocalReady = false;
  bool _isToCompare = false;        // all groups are to be looked at
  bool _isEngineFull = false;       // it took no put; until something happens
  bool _isPartial = false;          // more of one change may come: what comes at once is judged at once
  bool _isSomethingMissed = false;  // more was left out than is remembered
  std::string _source;              // of the link
  Version _followed = 0;            // everything up to it came in
  Milliseconds _followedKeptAt{0};
  std::set<std::string> _listed;  // known groups that came since everything was to be reported

  std::map<std::string, Remote> _remote;
  std::map<std::string, AgreedGroup> _sent;       // what puts without their reply agree on
  std::set<std::string> _answered;                // groups whose last put has a known outcome
  std::map<std::string, AgreedGroup> _confirmed;  // what the other end took, and is not on the disk yet
  std::map<std::string, Refused> _refused;
  std::map<std::string, size_t> _attempts;
  std::map<std::string, std::set<std::string>> _allowed;  // keys that the other end may lose with the next put
  std::set<std::string> _dirty;
  std::map<std::string, Blocked> _blocked;
  std::map<std::string, std::vector<Conflict>> _reported;  // of changes that are not made yet
  std::set<std::string> _undecided;
  std::map<std::string, Side> _decided;  // by a person
};

}  // namespace tavix::bridge
