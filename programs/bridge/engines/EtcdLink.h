#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/engines/Engine.h"
#include "programs/bridge/engines/EtcdTransfers.h"

namespace tavix::bridge {

// One link to one endpoint of a cluster. It is driven: what it receives calls its observer within Step.
//
// A prefix is read whole, page by page at one revision, then watched from the revision behind; or watched from a stored
// revision on, if the cluster still has that one. It has caught up once the watch has shown the newest change that a
// read finds. A watch that the cluster ends because changes of that time are compacted has all prefixes read again.
//
// Threads: one.
// Errors:  HasFailed and GetReason; the constructor throws osa::Exception.
class EtcdLink {
 public:
  // What is called when something came; of the thread that calls Step.
  class Observer {
   public:
    virtual ~Observer() = default;

    // source: the cluster.
    virtual void OnConnected(const std::string& source) = 0;
    virtual void OnItem(Item item) = 0;
    virtual void OnSynced(Synced synced) = 0;
    virtual void OnReread() = 0;
    virtual void OnPutDone(PutDone done) = 0;
  };

  // What is passed in outlives the link.
  EtcdLink(const EtcdSettings& settings, const std::string& endpoint, Observer& observer);

  // Does what has come; waits for it, or for the descriptor "wake", a second at most.
  void Step(int wake);

  void Put(const std::string& key, const std::optional<std::string>& bytes, const std::optional<Version>& expected);

  // from: 0, or a version of this cluster. The same prefixes from 0 on are read again.
  void Follow(const std::vector<std::string>& prefixes, Version from);

  bool IsConnected() const { return _isConnected; }
  bool HasFailed() const { return !_reason.empty(); }
  const std::string& GetReason() const { return _reason; }

 private:
  using Clock = std::chrono::steady_clock;
  using Answer = EtcdTransfers::Answer;

  struct PendingPut {
    std::string key;
    std::string transaction;
  };
  struct Followed {
    int watch = 0;            // its stream; 0: it is being read
    bool isCreated = false;   // the cluster confirmed the watch
    bool isCaughtUp = false;  // everything up to the moment of Follow was reported
    Version newest = 0;       // the newest change at that moment
    Version seen = 0;         // all changes up to here were reported
    Version missed = 0;       // a change that was there at the last probe, but not reported; 0: none
  };

  void Begin();
  void Connect(const nlohmann::json& range);
  void Read(const std::string& prefix, const std::string& begin, Version revision);
  void TakePage(const std::string& prefix, Version revision, const nlohmann::json& page);
  void ReadAllAgain();
  void Resume(const std::string& prefix, Version from);
  void FindNewest(const std::string& prefix, Version from);
  void CatchUp(Followed& followed);
  void Watch(const std::string& prefix, Version from);
  void TakeWatched(const std::string& prefix, const std::string& line);
  void TakeEvents(Followed& followed, const nlohmann::json& result);
  void EndRead(const std::string& prefix, Version revision);
  void ReportSynced(bool isComplete);
  void SendPut(const PendingPut& put);
  void FinishPut(const std::string& key, const Answer& answer);
  static PutDone MakeOutcome(const std::string& key, const nlohmann::json& result);
  void Probe();
  void ProbeOne(const std::string& prefix, Version seen);
  static nlohmann::json MakeRangeOfChanges(const std::string& prefix, Version seen);
  void TakeProbe(const std::string& prefix, const nlohmann::json& range);
  Followed* Find(const std::string& prefix);
  bool Require(const Answer& answer, const nlohmann::json& parsed);
  static bool IsRefusal(const nlohmann::json& parsed);
  void Fail(const std::string& reason);
  static std::string Describe(const Answer& answer);

  const EtcdSettings& _settings;
  const std::string _endpoint;
  Observer& _observer;
  const Credentials _credentials;
  EtcdTransfers _transfers;
  bool _isConnected = false;
  std::string _cluster;   // its number, once it is connected
  Version _revision = 0;  // of the cluster, when it was connected
  Clock::time_point _nextProbe;
  std::size_t _reading = 0;   // prefixes that have not caught up
  bool _isReadWhole = false;  // not from a stored revision on
  int _round = 0;             // of reading everything; what belongs to an older one is dropped
  std::map<std::string, Followed> _followed;
  std::map<std::string, std::deque<PendingPut>> _puts;  // by key; the first of each is on its way
  std::string _reason;
};

}  // namespace tavix::bridge
