#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"

#include <cstdio>
#include <cstdlib>
#include <istream>
#include <ostream>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/settings/client/Commands.h"
#include "tavix/settings/client/KeptByServer.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/client/TavixSettingsConnection.h"
#include "tavix/settings/client/WireNames.h"

namespace tavix::settings::client {

using core::IniFile;

namespace {

constexpr unsigned int kStackSize = 32768;
constexpr int kConnectAttempts = 3;  // of one round; the worker makes rounds until it succeeds

// Milliseconds.
constexpr unsigned int kRetryPause = 1000;
constexpr unsigned int kQuitTimeout = 1000;      // how long the destructor waits for the right to write
constexpr unsigned int kQuitWriteTimeout = 500;  // and for room to write "quit"
constexpr unsigned int kQuitGrace = 1000;        // and then for the server to end the connection

[[noreturn]] void AbortProcess(const char* format, const char* name) {
  std::fprintf(stderr, format, name);
  std::abort();
}

}  // namespace

// Lets the destructor go on when the worker is done, however it ends: by a return, or by what a callback has thrown.
class TavixSettingsClientImplMultiThreaded::EndNotice {
 public:
  explicit EndNotice(osa::Semaphore& ended) : _ended(ended) {}
  ~EndNotice() { _ended.Release(); }

  EndNotice(const EndNotice&) = delete;
  EndNotice& operator=(const EndNotice&) = delete;

 private:
  osa::Semaphore& _ended;
};

TavixSettingsClientImplMultiThreaded::TavixSettingsClientImplMultiThreaded(TavixSettingsConnection* connection)
    : _thread("TavixSettings", this, kStackSize, 0),
      _commandMutex(nullptr),
      _stopping("TavixSettingsClientImpl::_stopping", 1, 0),
      _workerEnded("TavixSettingsClientImpl::_workerEnded", 1, 0),
      _observers(*_logger) {
  BindToProcess();
  _pConnection.reset(connection);
  try {
    _thread.Run();
  } catch (...) {
    _pConnection.release();  // nothing is taken over by a constructor that fails
    throw;
  }
}

TavixSettingsClientImplMultiThreaded::~TavixSettingsClientImplMultiThreaded() {
  if (_workerId.load() == std::this_thread::get_id())
    AbortProcess("TavixSettingsClientImplMultiThreaded::%s: called from a change callback of its own client\n",
                 "~TavixSettingsClientImplMultiThreaded");
  _stop = true;
  _stopping.Release();
  EndWorker();
}

// Asks first, because a server that ends the connection by itself has read everything that was sent. A worker that does
// not end in time is asleep in the connection, a pause or a callback: breaking the connection wakes it from the first,
// "_stopping" from the second, and the third is waited for.
void TavixSettingsClientImplMultiThreaded::EndWorker() {
  unsigned int grace = kQuitGrace;
  try {
    SendRightLock right(_sendRight, kQuitTimeout, _pConnection.get());
    _pConnection->LimitWrites(kQuitWriteTimeout);
    if (_pConnection->IsReady()) *_pConnection->GetOstream() << protocol::kQuit << std::endl;
  } catch (const std::exception& exception) {
    _logger->Trace("Ending without a quit: %s", exception.what());
    _endsUnasked = true;
    grace = 0;
  }
  if (!_workerEnded.TryLock(grace)) _pConnection->AbortConnection();
  try {
    _thread.Join();
  } catch (const std::exception& exception) {
    _logger->Error("%s", exception.what());
  }
}

// The reply is read into a document of the command's own: this call may be failed, and "out" gone, before it comes.
bool TavixSettingsClientImplMultiThreaded::GetSettings(const std::set<std::string>& groups, IniFile& out) const {
  RequireSendableNames(groups);
  const auto result = std::make_shared<IniFile>();
  auto command = std::make_unique<GetSettingsCommand>();
  command->_responseKeyword = protocol::kData;
  command->_groups = &groups;
  command->_result = result.get();
  command->_keepAlive = result;
  if (!RunCommand("GetSettings", std::move(command))) return false;
  out.MergeSettings(std::move(*result));
  return true;
}

void TavixSettingsClientImplMultiThreaded::MergeSettings(const IniFile& settings, unsigned int flags) {
  RequireSendableNames(settings);
  auto command = std::make_unique<MergeCommand>();
  command->_settings = &settings;
  command->_flags = flags;
  RunCommand("MergeSettings", std::move(command));
}

// Its outcome comes back in the slot's status and not in the command, which is gone once its reply was read.
bool TavixSettingsClientImplMultiThreaded::TestAndMerge(const IniFile& test, const IniFile& merge) {
  RequireSendableNames(test);
  RequireSendableNames(merge);
  auto command = std::make_unique<TestAndMergeCommand>();
  command->_responseKeyword = protocol::kResult;
  command->_test = &test;
  command->_settings = &merge;
  return RunCommand("TestAndMerge", std::move(command));
}

// What the server can do counts for its connection alone: when another one was made since, that one is asked.
bool TavixSettingsClientImplMultiThreaded::Amend(const Amendment& amendment) {
  RequireSendableNames(amendment);
  _logger->Trace("Amend");
  RefuseOnWorker("Amend");
  osa::MutexAutoLock oneAtATime(_commandMutex);
  for (bool result = false;;) {
    if (_askedGeneration != AwaitConnection()) {
      auto question = std::make_unique<FeaturesCommand>();
      question->_responseKeyword = protocol::kData;
      unsigned int generation = 0;
      static_cast<void>(TryExchange("Amend", std::move(question), generation, _canAmend));
      _askedGeneration = generation;
    }
    if (!_canAmend) ThrowTooOld("Amend");
    auto command = std::make_unique<AmendCommand>();
    command->_responseKeyword = protocol::kResult;
    command->_amendment = &amendment;
    if (TryExchange("Amend", std::move(command), _askedGeneration, result)) return result;
  }
}

unsigned int TavixSettingsClientImplMultiThreaded::AwaitConnection() const {
  SendRightLock right(_sendRight, _sendTimeout, _pConnection.get());
  return _generation.load();
}

void TavixSettingsClientImplMultiThreaded::OverwriteSettings(const std::set<std::string>& groups,
                                                             const IniFile& settings) {
  RequireSendableNames(groups);
  RequireSendableNames(settings);
  auto command = std::make_unique<OverwriteCommand>();
  command->_groups = &groups;
  command->_settings = &settings;
  RunCommand("OverwriteSettings", std::move(command));
}

void TavixSettingsClientImplMultiThreaded::RestoreToDefaults(const std::set<std::string>& groups) {
  RequireSendableNames(groups);
  auto command = std::make_unique<RestoreToDefaultsCommand>();
  command->_groups = &groups;
  RunCommand("RestoreToDefaults", std::move(command));
}

// A server in the process saves nothing.
Keeping TavixSettingsClientImplMultiThreaded::AskForKeeping() const {
  return _pConnection->OutlivesClosing() ? Keeping::kNotKept : AskServerForKeeping();
}

// A connection that is made between writing and registering knows nothing of the subscription: then it is written
// again. Once registered, every later connection brings it back by itself.
void TavixSettingsClientImplMultiThreaded::Subscribe(IChangeCallback* cb, const std::set<std::string>& groups) {
  _logger->Trace("Subscribe");
  RefuseOnWorker("Subscribe");
  RequireSendableNames(groups);
  unsigned int written = SendSubscription(groups);
  _commonDispatcher.AddCallback(cb, groups);
  while (written != _generation.load()) {
    try {
      written = SendSubscription(groups);
    } catch (const osa::Exception& exception) {
      _logger->Information("Subscribing again is left to the next connection: %s", exception.what());
      _pConnection->BreakConnection();
      return;
    }
  }
}

// Returns the number of the connection that it was written to. While the right is held, that number stays: the worker
// counts a new connection before it gives the right away.
unsigned int TavixSettingsClientImplMultiThreaded::SendSubscription(const std::set<std::string>& groups) const {
  SendRightLock right(_sendRight, _sendTimeout, _pConnection.get());
  RequireReady("Subscribe");
  WriteSubscribeRequest(*_pConnection->GetOstream(), groups);
  return _generation.load();
}

// On the caller's thread. What can happen, in this order:
//   - The right is not free within its time, as there is no connection: nothing was written, and nothing stays behind.
//   - The write fails: the connection is broken, so that the worker finds out, and no command is queued.
//   - The command is queued, and the worker finds its reply, or a loss, and posts the outcome. The wait for it has no
//     limit: the worker notices each loss.
//   - The outcome is there already, left by an earlier loss that no call has reported: then this call fails, too.
bool TavixSettingsClientImplMultiThreaded::RunCommand(const char* name, std::unique_ptr<RemoteCommand> command) const {
  _logger->Trace("%s", name);
  if (command->_responseKeyword.empty()) {
    SendRightLock right(_sendRight, _sendTimeout, _pConnection.get());
    Send(name, *command);
    return true;
  }
  RefuseOnWorker(name);
  osa::MutexAutoLock oneAtATime(_commandMutex);
  unsigned int any = 0;
  bool result = false;
  static_cast<void>(TryExchange(name, std::move(command), any, result));
  return result;
}

// generation: the connection that it has to be, 0 any; gets the one that it was. False: it is another one by now, and
// nothing was sent.
bool TavixSettingsClientImplMultiThreaded::TryExchange(const char* name, std::unique_ptr<RemoteCommand> command,
                                                       unsigned int& generation, bool& result) const {
  ReadTurn turn(_readRight);
  {
    SendRightLock right(_sendRight, _sendTimeout, _pConnection.get());
    if (generation != 0 && generation != _generation.load()) return false;
    generation = _generation.load();
    turn.Ask();  // before the request is written: its reply shall wake no other thread
    Send(name, *command);
    _slot.Queue(std::move(command));  // before the right is given back, so that its reply finds it
  }
  if (turn.Begin()) ReadReply(turn);
  const ResponseStatus status = _slot.Await();
  result = status.result;
  if (status.received) return true;
  _logger->Error("%s failed", name);
  throw osa::Exception("%s failed to communicate with tavix-settings-server", name);
}

// What is not a reply is the worker's: notices, the end of the connection, and what breaks it.
void TavixSettingsClientImplMultiThreaded::ReadReply(ReadTurn& turn) const {
  try {
    if (_reader->ReadOutcome() && _reader->AwaitsInput()) turn.GiveBack();
    turn.HandOver();
  } catch (const std::exception& exception) {
    turn.HandOver(true);
    _logger->Error("Caught %s", exception.what());
  }
}

void TavixSettingsClientImplMultiThreaded::Send(const char* name, RemoteCommand& command) const {
  RequireReady(name);
  std::ostream& out = *_pConnection->GetOstream();
  try {
    command.SendRequest(out);
  } catch (...) {
    _pConnection->BreakConnection();  // half a request may be out
    throw;
  }
  if (out.fail()) {
    _pConnection->BreakConnection();
    throw osa::Exception("%s lost connection to tavix-settings-server", name);
  }
}

// The worker gives the right to write only with a connection, and takes it back before it closes that one.
void TavixSettingsClientImplMultiThreaded::RequireReady(const char* name) const {
  if (_pConnection->IsReady()) return;
  AbortProcess(
      "TavixSettingsClientImplMultiThreaded::%s: invariant broken: take(_sendMutex) && (!_pConnection->IsReady())\n",
      name);
}

// The worker would wait for a reply that it has to read itself.
void TavixSettingsClientImplMultiThreaded::RefuseOnWorker(const char* name) const {
  if (_workerId.load() != std::this_thread::get_id()) return;
  throw osa::Exception("%s can't be called from a change callback of the same client: its thread receives the replies",
                       name);
}

// Begins with the right to write, as the semaphore is made, so that callers wait for the first connection, too. Each
// round has it again when it ends: an attempt that fails never gave it away, and CleanUp takes it back.
void TavixSettingsClientImplMultiThreaded::Run() {
  const EndNotice notice(_workerEnded);
  _workerId = std::this_thread::get_id();
  while (!_stop) {
    Connect();
    if (_pConnection->IsReady()) {
      ServeConnection();
    } else {
      _logger->Warning("Attempting to reconnect in 1 second");
      PauseUnlessStopping(kRetryPause);
    }
  }
  _sendRight.GiveToCallers();  // only the destructor is left, which would wait for it in vain
}

// Each failure is followed by another attempt: a server that is not there yet is no reason to give up. The reasons are
// the connection's to log.
void TavixSettingsClientImplMultiThreaded::Connect() {
  _logger->Information("(re)Connecting to tavix-setting server");
  try {
    _pConnection->EnsureConnection(kConnectAttempts);
  } catch (const std::exception& exception) {
    _logger->Warning("Connect() failed: %s", exception.what());
  } catch (...) {
    _logger->Warning("Connect() failed: %s", "unknown");
  }
}

// What a callback throws that is no std::exception ends the worker, but only after everything is in order.
void TavixSettingsClientImplMultiThreaded::ServeConnection() {
  Resubscribe();
  _logger->Information("Connected to tavix-settings-server, releasing semaphore");
  _sendRight.GiveToCallers();
  try {
    _observers.CallAll();  // before the first message is read: an observer knows of the connection before any notice
    ReadUntilBroken();
  } catch (const std::exception& exception) {
    _logger->Error("Caught %s", exception.what());
  } catch (...) {
    CleanUp();
    throw;
  }
  CleanUp();
}

// A subscription that can't be written breaks the connection: the next one tries again.
void TavixSettingsClientImplMultiThreaded::Resubscribe() {
  ++_generation;  // before the groups are collected: who registers later sees that it must write again
  try {
    std::set<std::string> groups;
    _commonDispatcher.GetAllSubscribedGroups(groups);
    if (groups.empty()) return;
    _logger->Information("Resubscribing %zd groups", static_cast<ssize_t>(groups.size()));
    WriteSubscribeRequest(*_pConnection->GetOstream(), groups);
  } catch (const std::exception& exception) {
    _logger->Error("Caught %s", exception.what());
    _pConnection->BreakConnection();
  }
}

// The output's state belongs to the writers. A write that fails breaks the connection, which is then seen here. Where a
// "quit" was written the server ends the connection: to close it earlier would take writes back that are still on
// their way.
void TavixSettingsClientImplMultiThreaded::ReadUntilBroken() {
  _reader.emplace(*_pConnection->GetIstream(), MessageReader::Targets{_slot, _sendRight, _commonDispatcher, *_logger});
  while (!_endsUnasked && OfferReading() && _reader->ReadMessage()) continue;
}

// Where the input can't be watched, the worker reads all by itself. False: the input can't be read on.
bool TavixSettingsClientImplMultiThreaded::OfferReading() {
  if (!_reader->AwaitsInput() || !_readRight.WasAskedFor()) return true;
  osa::InputWatch* const watch = _pConnection->WatchInput();
  return !watch || _readRight.AwaitInput(*watch);
}

// The order counts: the right is taken before the slot is failed, so that no caller can queue a command that nobody
// fails; and the connection is closed last, when nobody can be using its streams any more.
void TavixSettingsClientImplMultiThreaded::CleanUp() {
  // Wakes a caller that is blocked in a write, and holds the right to write. Pipes never block it, and can't be made
  // again: there the reader has to be left in order.
  if (!_pConnection->OutlivesClosing()) _pConnection->BreakConnection();
  _sendRight.TakeFromCallers();
  // Callers wait for the right meanwhile. A server that restarts gets time before all its clients come back.
  PauseUnlessStopping(kRetryPause);
  if (_slot.IsQueued()) _logger->Information("cleaning request queue");
  // Without a caller that waits the failure stays for the next one, on purpose: one call fails for each loss, or for
  // several in a row.
  _slot.Fail(_pConnection->OutlivesClosing());
  _pConnection->CloseConnection();
  _pConnection->ClearStreams();
}

// The semaphore is passed on, so that later pauses end at once, too.
void TavixSettingsClientImplMultiThreaded::PauseUnlessStopping(unsigned int milliseconds) {
  if (!_stop && _stopping.TryLock(milliseconds)) _stopping.Release();
}

}  // namespace tavix::settings::client
