#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "tavix/osa/Mutex.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Semaphore.h"
#include "tavix/osa/Thread.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/client/ConnectionObservers.h"
#include "tavix/settings/client/MessageReader.h"
#include "tavix/settings/client/ReadRight.h"
#include "tavix/settings/client/ReplySlot.h"
#include "tavix/settings/client/SendRight.h"
#include "tavix/settings/client/TavixSettingsClientImpl.h"

namespace tavix::settings::client {

class RemoteCommand;
class TavixSettingsConnection;

// A remote client whose worker thread connects and reconnects, subscribes again after that, reads notices, and calls
// back on changes. Callers write their requests themselves, and mostly read their own replies, too; else the worker
// hands these to them.
//
// The worker goes round a cycle, and nobody else moves it on:
//
//     connecting   The worker has the right to write, so callers wait for it, 10 s at most; then they fail, with the
//                  reason why the last attempt failed. Attempts that fail are made again after a second. Once there is
//                  a connection, the worker subscribes what was subscribed before, and gives the right to callers.
//     connected    Callers write requests, one at a time. The worker reads messages until the connection is lost, a
//                  message is broken, or a callback throws. Between two messages it offers the right to read, if
//                  callers ask for it; one that takes it reads its reply, or up to what is the worker's.
//     cleaning     The worker breaks the connection, so that a caller that is blocked in a write gives the right back,
//                  and takes the right. It fails the caller that awaits a reply, and connects again.
//
// The destructor ends the cycle wherever it is. When it gets the right to write within a second, it writes "quit", and
// the server ends the connection after everything that was sent before; else the connection is broken.
//
// A request without a reply is done once it is written. One with a reply is handed over by the ReplySlot, whose header
// says what can happen to it; that of ReadRight says who reads.
//
// Threads: any number of callers, and the worker "TavixSettings". Callbacks run on the worker; a call from there that
//          would wait for a reply, or subscribe, throws. One request that awaits a reply is under way at a time.
// Locks:   "_commandMutex" before the right to write before the slot's mutex. The worker never takes the first, and
//          holds none while callbacks run. A caller queues its command before it gives the right back, so that replies
//          meet their commands. The right to read is asked for with the right to write held, and kept beyond that.
// Errors:  TavixSettingsClient.h lists them. A caller that is failed by an earlier loss leaves its own reply
//          behind: the worker reads that reply into the command's own document and drops it. A reply whose keyword is
//          the wrong one fails the caller it was for, and what follows of it is dropped.
// Methods: the operations of every client, and the worker's steps; the members are what callers and worker share.
class TavixSettingsClientImplMultiThreaded final : public TavixSettingsClientImpl, public osa::Runnable {
 public:
  // connection: taken over, unless this throws. Starts the worker, which connects.
  explicit TavixSettingsClientImplMultiThreaded(TavixSettingsConnection* connection);

  // Has the server end the connection, and breaks it when that takes long. Aborts the process when called on the
  // worker.
  ~TavixSettingsClientImplMultiThreaded() override;

  bool GetSettings(const std::set<std::string>& groups, core::IniFile& out) const override;
  void MergeSettings(const core::IniFile& settings, unsigned int flags) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& merge) override;
  bool Amend(const Amendment& amendment) override;
  void Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) override;
  void OverwriteSettings(const std::set<std::string>& groups, const core::IniFile& settings) override;
  void RestoreToDefaults(const std::set<std::string>& groups) override;
  void AddConnectionObserver(IConnectionObserver* observer) override { _observers.Add(observer); }
  void RemoveConnectionObserver(IConnectionObserver* observer) override { _observers.Remove(observer); }
  Keeping AskForKeeping() const override;

  // The worker.
  void Run() override;

  // Does nothing: the destructor ends the worker.
  void Stop() override {}

 private:
  class EndNotice;

  // On the caller's thread.
  bool RunCommand(const char* name, std::unique_ptr<RemoteCommand> command) const
      TAVIX_EXCLUDES(_commandMutex, _sendRight);
  bool TryExchange(const char* name, std::unique_ptr<RemoteCommand> command, unsigned int& generation,
                   bool& result) const TAVIX_REQUIRES(_commandMutex) TAVIX_EXCLUDES(_sendRight);
  unsigned int AwaitConnection() const TAVIX_EXCLUDES(_sendRight);  // returns its number
  void Send(const char* name, RemoteCommand& command) const TAVIX_REQUIRES(_sendRight);
  void ReadReply(ReadTurn& turn) const;
  void RequireReady(const char* name) const TAVIX_REQUIRES(_sendRight);
  void RefuseOnWorker(const char* name) const;
  unsigned int SendSubscription(const std::set<std::string>& groups) const TAVIX_EXCLUDES(_sendRight);

  // On the worker's.
  void Connect();
  void ServeConnection();
  void Resubscribe();
  void ReadUntilBroken();
  bool OfferReading();
  void CleanUp();
  void PauseUnlessStopping(unsigned int milliseconds);
  void EndWorker();

  osa::Thread _thread;
  std::atomic<bool> _stop{false};
  std::atomic<bool> _endsUnasked{false};                  // stopping, and no "quit" could be written
  std::unique_ptr<TavixSettingsConnection> _pConnection;  // never exchanged
  mutable osa::Mutex _commandMutex;                       // held by the call that awaits a reply, for its whole length
  mutable SendRight _sendRight;
  const unsigned int _sendTimeout = 10000;  // milliseconds
  mutable ReplySlot _slot;
  mutable ReadRight _readRight;
  mutable std::optional<MessageReader> _reader;  // of this connection; belongs to whoever has the right to read
  osa::Semaphore _stopping;                      // free once the destructor runs
  osa::Semaphore _workerEnded;                   // free once the worker is done
  std::atomic<std::thread::id> _workerId{};
  std::atomic<unsigned int> _generation{0};                           // counts connections
  unsigned int _askedGeneration TAVIX_GUARDED_BY(_commandMutex) = 0;  // whose server was asked for amendments; 0: none
  bool _canAmend TAVIX_GUARDED_BY(_commandMutex) = false;             // its answer
  ConnectionObservers _observers;
};

}  // namespace tavix::settings::client
