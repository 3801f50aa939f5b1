#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "tavix/osa/MsgQueue.h"
#include "tavix/osa/Mutex.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Semaphore.h"
#include "tavix/osa/Thread.h"
#include "tavix/settings/client/TavixSettingsClientImpl.h"

namespace tavix::settings::client {

class RemoteCommand;
class TavixSettingsConnection;

// A remote client whose worker thread owns the reading side of the connection: it connects and reconnects, subscribes
// again after that, hands replies to the callers that wait for them, and calls back on changes. Callers write their
// requests themselves.
//
// Threads: any number of callers, and the worker "TavixSettings". Callbacks run on the worker; a call from there that
//          would wait for a reply, or subscribe, throws. One request that awaits a reply is under way at a time.
// Locks:   "_commandMutex" before "_sendMutex" before "_handoverMutex". The worker never takes the first, and
//          holds none while callbacks run. "_sendMutex" is the right to write: the worker holds it while it is not
//          connected, and whoever writes a request queues its command before giving it back, so that replies meet
//          their commands.
// Errors:  TavixSettingsClient.h lists them. A caller that is failed by an earlier loss leaves its own reply
//          behind: the worker reads that reply into the command's own document and drops it. A reply whose keyword is
//          the wrong one fails the caller it was for, and what follows of it is dropped.
class TavixSettingsClientImplMultiThreaded final : public TavixSettingsClientImpl, public osa::Runnable {
 public:
  // What became of a request: whether a reply with the expected keyword came, and what handling it returned.
  struct ResponseStatus {
    bool received = false;
    bool result = false;
  };

  // connection: taken over, unless this throws. Starts the worker, which connects.
  explicit TavixSettingsClientImplMultiThreaded(TavixSettingsConnection* connection);

  // Has the server end the connection, and breaks it when that takes long. Aborts the process when called on the
  // worker.
  ~TavixSettingsClientImplMultiThreaded() override;

  bool GetSettings(const std::set<std::string>& groups, core::IniFile& out) const override;
  void MergeSettings(const core::IniFile& settings, unsigned int flags) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& merge) override;
  void Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) override;
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings) override;
  void RestoreToDefaults(const std::set<std::string>& groups) override;
  void AddConnectionObserver(IConnectionObserver* observer) override;
  void RemoveConnectionObserver(IConnectionObserver* observer) override;

  // The worker.
  void Run() override;

  // Does nothing: the destructor ends the worker.
  void Stop() override {}

 private:
  class SendRight;
  class EndNotice;
  class LinesToSkip;

  // How far the one call that awaits a reply has come.
  enum class CallState { kNone, kQueued, kHandled, kPosted };

  // On the caller's thread.
  bool RunCommand(const char* name, std::unique_ptr<RemoteCommand> command) const;
  void Send(const char* name, RemoteCommand& command) const;
  void Queue(std::unique_ptr<RemoteCommand> command) const;
  void Withdraw() const;
  void RequireReady(const char* name) const;
  void RefuseOnWorker(const char* name) const;
  unsigned int SendSubscription(const std::set<std::string>& groups) const;

  // On the worker's.
  void Connect();
  void ServeConnection();
  void Resubscribe();
  void TellObservers();
  void ReadUntilBroken();
  void HandleLine(const std::string& line, LinesToSkip& toSkip);
  void HandleChange();
  void HandleReply(const std::string& word, LinesToSkip& toSkip);
  std::unique_ptr<RemoteCommand> TakeCommand(bool& withdrawn) const;
  ResponseStatus ReadReply(RemoteCommand& command, const std::string& word) const;
  void Finish(std::unique_ptr<RemoteCommand> command, bool withdrawn, ResponseStatus status) const;
  void CleanUp();
  void DiscardCommands() const;
  void PostStatus(ResponseStatus status) const;
  void PauseUnlessStopping(unsigned int milliseconds);
  void EndWorker();

  osa::Thread _thread;
  std::atomic<bool> _stop{false};
  std::atomic<bool> _endsUnasked{false};                  // stopping, and no "quit" could be written
  std::unique_ptr<TavixSettingsConnection> _pConnection;  // never exchanged
  mutable osa::Mutex _commandMutex;
  mutable osa::Semaphore _sendMutex;
  const unsigned int _sendTimeout = 10000;                // milliseconds
  mutable osa::tMsgQueue<RemoteCommand*> _requestQueue;   // the command whose reply is awaited
  mutable osa::tMsgQueue<ResponseStatus> _responseQueue;  // what became of it
  osa::Semaphore _stopping;                               // free once the destructor runs
  osa::Semaphore _workerEnded;                            // free once the worker is done
  std::atomic<std::thread::id> _workerId{};
  std::atomic<unsigned int> _generation{0};  // counts connections
  std::mutex _observerMutex;                 // guards what follows; held while observers are told
  std::set<IConnectionObserver*> _observers;
  mutable std::mutex _handoverMutex;  // guards what follows; both queues' one slot with it
  mutable CallState _callState = CallState::kNone;
  mutable bool _currentWithdrawn = false;                         // the caller left while its reply was being handled
  mutable std::deque<std::unique_ptr<RemoteCommand>> _withdrawn;  // left by their callers, replies still to come
};

}  // namespace tavix::settings::client
