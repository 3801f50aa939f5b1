#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programs/common/Signals.h"
#include "programs/web/access/Access.h"
#include "programs/web/changes/ChangeStreams.h"
#include "programs/web/daemon/WorkQueue.h"
#include "programs/web/http/Connection.h"
#include "programs/web/http/Encryption.h"
#include "programs/web/http/EventBase.h"
#include "programs/web/http/Listener.h"
#include "programs/web/http/MemoryBudget.h"
#include "programs/web/interface/GroupReads.h"
#include "programs/web/interface/Router.h"
#include "programs/web/options/Options.h"
#include "programs/web/service/Gate.h"
#include "programs/web/service/Wakeup.h"

namespace tavix::web {

// Accepts connections, and has their requests answered. The loop never waits for the daemon: two workers do that, each
// with a connection of its own, and a third thread follows changes.
//
// Threads: one runs the loop and makes and destroys this.
class Server : private ConnectionOwner {
 public:
  static constexpr size_t kMaxConnections = 128;
  static constexpr size_t kMaxWaiting = 64;

  // encryption: null: connections are not encrypted. All others outlive this.
  Server(const Options& options, Access& access, std::unique_ptr<const Encryption> encryption,
         const std::vector<Listener>& listeners, const programs::Signals& signals);
  ~Server() override;

  // Returns behind SIGTERM or SIGINT. SIGHUP has the certificate and its key read again, for connections that begin
  // behind it; if they are wrong, those before stay.
  void Run() { _base.Run(); }

 private:
  // A request whose answer a worker makes.
  struct Pending {
    Connection* connection;
    const WorkQueue* queue;
    bool isWrite;
    bool isOverdue;
    std::function<void(Response& response)> finish;  // completes the answer on the loop; may be empty
    std::unique_ptr<LoopEvent> timer;
  };

  void OnHead(Connection& connection, const Request& head, size_t announcedBytes) override;
  void OnRequest(Connection& connection, Request& request) override;
  Response OnRefused(int status, const std::string& reason) override;
  void OnStreamDrained(Connection& connection) override { _streams.OnDrained(connection); }
  void OnEnd(Connection& connection) override;

  void OnSignal();
  void ReloadEncryption();
  void Accept(const Listener& listener);
  bool HasRoom(const Peer& peer) const;
  void Handle(Connection& connection, Request& request);
  void HandleRoute(Connection& connection, Request& request, const Gate::Entry& entry);
  void LogIn(Connection& connection, const Request& request, const Origin& origin);
  Response LogOut(const Request& request, const Origin& origin);
  void Start(Connection& connection, WorkQueue& queue, bool isWrite, WorkQueue::Work work,
             std::function<void(Response& response)> finish, std::optional<WorkQueue::Reading> reading = std::nullopt);
  void ReadAtOnce(size_t worker, const std::vector<WorkQueue::Reading>& readings);
  void OnOverdue(WorkQueue& queue, WorkQueue::Number number);
  void AnswerOverdue(WorkQueue::Number number, bool wasBegun);
  void SendDone(WorkQueue& queue);

  const Options& _options;
  Access& _access;
  std::unique_ptr<const Encryption> _encryption;
  const programs::Signals& _signals;
  Gate _gate;
  MemoryBudget _bodies;
  MemoryBudget _answers;
  const AnswerBounds _bounds;
  View _view;
  EventBase _base;
  Wakeup _wakeup;
  ChangeStreams _streams;
  std::map<Connection*, std::unique_ptr<Connection>> _connections;
  std::map<std::string, size_t> _addresses;  // connections of each
  std::map<WorkQueue::Number, Pending> _pending;
  WorkQueue::Number _lastNumber = 0;
  std::vector<std::unique_ptr<LoopEvent>> _events;  // of listeners and signals
  std::array<DaemonLink, 2> _links;                 // of the workers
  std::array<GroupReads, 2> _reads;                 // likewise
  WorkQueue _workers;
  WorkQueue _hashing;
};

}  // namespace tavix::web
