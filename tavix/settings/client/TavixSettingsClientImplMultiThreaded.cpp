#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"

#include <cstdio>
#include <cstdlib>
#include <istream>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/client/Commands.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/client/ReplyLine.h"
#include "tavix/settings/client/TavixSettingsConnection.h"
#include "tavix/settings/client/WireNames.h"
#include "tavix/settings/common/DelimitedValues.h"

namespace tavix::settings::client {

using core::IniFile;
using osa::kWaitForever;

namespace {

constexpr unsigned int kStackSize = 32768;
constexpr int kConnectAttempts = 3;
constexpr unsigned int kRetryPause = 1000;
constexpr unsigned int kQuitTimeout = 1000;
constexpr unsigned int kQuitWriteTimeout = 500;
constexpr unsigned int kQuitGrace = 1000;

[[noreturn]] void AbortProcess(const char* format, const char* name) {
  std::fprintf(stderr, format, name);
  std::abort();
}

}  // namespace

// The right to write to the connection, for the length of a scope.
class TavixSettingsClientImplMultiThreaded::SendRight {
 public:
  SendRight(osa::Semaphore& semaphore, unsigned int timeout) : _semaphore(semaphore) { _semaphore.Lock(timeout); }

  ~SendRight() {
    try {
      _semaphore.Release();
    } catch (...) {
      std::fputs("TavixSettingsClientImplMultiThreaded: SemAutoLock: failed to release semaphore!\n", stderr);
      std::abort();
    }
  }

  SendRight(const SendRight&) = delete;
  SendRight& operator=(const SendRight&) = delete;

 private:
  osa::Semaphore& _semaphore;
};

// Tells the destructor that the worker is done, however it ends.
class TavixSettingsClientImplMultiThreaded::EndNotice {
 public:
  explicit EndNotice(osa::Semaphore& ended) : _ended(ended) {}
  ~EndNotice() { _ended.Release(); }

  EndNotice(const EndNotice&) = delete;
  EndNotice& operator=(const EndNotice&) = delete;

 private:
  osa::Semaphore& _ended;
};

// The rest of a reply that nobody can use: read as further lines, but never as another's reply.
class TavixSettingsClientImplMultiThreaded::LinesToSkip {
 public:
  void Expect(const std::string& word) {
    _one = word == protocol::kResult;
    _untilTerminator = word == protocol::kData;
  }

  bool Takes(const std::string& line) {
    const bool takes = _one || _untilTerminator;
    _one = false;
    if (line == protocol::kTerminator) _untilTerminator = false;
    return takes;
  }

 private:
  bool _one = false;
  bool _untilTerminator = false;
};

TavixSettingsClientImplMultiThreaded::TavixSettingsClientImplMultiThreaded(TavixSettingsConnection* connection)
    : _thread("TavixSettings", this, kStackSize, 0),
      _commandMutex(nullptr),
      _sendMutex("sendMutex", 1, 0),
      _requestQueue("TavixSettingsClientImpl::_requestQueue", 1),
      _responseQueue("TavixSettingsClientImpl::_responseQueue", 1),
      _stopping("TavixSettingsClientImpl::_stopping", 1, 0),
      _workerEnded("TavixSettingsClientImpl::_workerEnded", 1, 0) {
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

void TavixSettingsClientImplMultiThreaded::EndWorker() {
  unsigned int grace = kQuitGrace;
  try {
    SendRight right(_sendMutex, kQuitTimeout);
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

bool TavixSettingsClientImplMultiThreaded::TestAndMerge(const IniFile& test, const IniFile& merge) {
  RequireSendableNames(test);
  RequireSendableNames(merge);
  auto command = std::make_unique<TestAndMergeCommand>();
  command->_responseKeyword = protocol::kResult;
  command->_test = &test;
  command->_settings = &merge;
  return RunCommand("TestAndMerge", std::move(command));
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

void TavixSettingsClientImplMultiThreaded::AddConnectionObserver(IConnectionObserver* observer) {
  std::lock_guard<std::mutex> lock(_observerMutex);
  _observers.insert(observer);
}

void TavixSettingsClientImplMultiThreaded::RemoveConnectionObserver(IConnectionObserver* observer) {
  std::lock_guard<std::mutex> lock(_observerMutex);
  _observers.erase(observer);
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

// Returns which connection it was written to.
unsigned int TavixSettingsClientImplMultiThreaded::SendSubscription(const std::set<std::string>& groups) const {
  SendRight right(_sendMutex, _sendTimeout);
  RequireReady("Subscribe");
  WriteSubscribeRequest(*_pConnection->GetOstream(), groups);
  return _generation.load();
}

bool TavixSettingsClientImplMultiThreaded::RunCommand(const char* name, std::unique_ptr<RemoteCommand> command) const {
  _logger->Trace("%s", name);
  if (command->_responseKeyword.empty()) {
    SendRight right(_sendMutex, _sendTimeout);
    Send(name, *command);
    return true;
  }
  RefuseOnWorker(name);
  osa::MutexAutoLock oneAtATime(_commandMutex);
  {
    SendRight right(_sendMutex, _sendTimeout);
    Send(name, *command);
    Queue(std::move(command));
  }
  ResponseStatus status;
  _responseQueue.GetMsg(status, kWaitForever);
  if (status.received) {
    std::lock_guard<std::mutex> lock(_handoverMutex);
    _callState = CallState::kNone;
    return status.result;
  }
  Withdraw();
  _logger->Error("%s failed", name);
  throw osa::Exception("%s failed to communicate with tavix-settings-server", name);
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

void TavixSettingsClientImplMultiThreaded::Queue(std::unique_ptr<RemoteCommand> command) const {
  std::lock_guard<std::mutex> lock(_handoverMutex);
  _requestQueue.SendMsg(command.get());
  command.release();  // the worker's from now on
  _callState = CallState::kQueued;
}

// The caller leaves with a failure. Its own reply may still come, be on its way through the worker, or lie in the slot:
// wherever it is, nobody else may get it.
void TavixSettingsClientImplMultiThreaded::Withdraw() const {
  std::lock_guard<std::mutex> lock(_handoverMutex);
  if (_callState == CallState::kQueued) {
    RemoteCommand* command = nullptr;
    _requestQueue.GetMsg(command, kWaitForever);  // it is there: only the handover's holder takes it out
    _withdrawn.emplace_back(command);
  } else if (_callState == CallState::kHandled) {
    _currentWithdrawn = true;
  } else if (_callState == CallState::kPosted && _responseQueue.GetSize() > 0) {
    ResponseStatus mine;
    _responseQueue.GetMsg(mine, kWaitForever);
  }
  _callState = CallState::kNone;
}

void TavixSettingsClientImplMultiThreaded::RequireReady(const char* name) const {
  if (_pConnection->IsReady()) return;
  AbortProcess(
      "TavixSettingsClientImplMultiThreaded::%s: invariant broken: take(_sendMutex) && (!_pConnection->IsReady())\n",
      name);
}

void TavixSettingsClientImplMultiThreaded::RefuseOnWorker(const char* name) const {
  if (_workerId.load() != std::this_thread::get_id()) return;
  throw osa::Exception("%s can't be called from a change callback of the same client: its thread receives the replies",
                       name);
}

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
  _sendMutex.Release();  // only the destructor is left, which would wait for it in vain
}

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
  _sendMutex.Release();
  try {
    TellObservers();
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

void TavixSettingsClientImplMultiThreaded::TellObservers() {
  std::lock_guard<std::mutex> lock(_observerMutex);
  for (IConnectionObserver* observer : _observers) {
    try {
      observer->OnConnected();
    } catch (const std::exception& exception) {
      _logger->Error("Caught %s", exception.what());
    } catch (...) {
      _logger->Error("Caught %s", "unknown");
    }
  }
}

// The output's state belongs to the writers. A write that fails breaks the connection, which is then seen here. Where a
// "quit" was written the server ends the connection: whoever closed it earlier would take writes back that are still on
// their way.
void TavixSettingsClientImplMultiThreaded::ReadUntilBroken() {
  std::istream& in = *_pConnection->GetIstream();
  LinesToSkip toSkip;
  std::string line;
  while (!_endsUnasked && std::getline(in, line)) HandleLine(line, toSkip);
}

void TavixSettingsClientImplMultiThreaded::HandleLine(const std::string& line, LinesToSkip& toSkip) {
  if (toSkip.Takes(line)) {
    _logger->Error("Message received without corresponding request");
    return;
  }
  if (line.empty())
    throw std::runtime_error("Unexpected empty line returned from tcp connection with tavix-settings-server");
  const std::string word = FirstWord(line);
  if (word == protocol::kAsync) {
    HandleChange();
  } else {
    HandleReply(word, toSkip);
  }
}

void TavixSettingsClientImplMultiThreaded::HandleChange() {
  std::istream& in = *_pConnection->GetIstream();
  std::set<std::string> groups;
  common::readDelimitedValues(&in, std::inserter(groups, groups.begin()));
  IniFile settings;
  {
    stl::DelimitedIstream payload(&in, protocol::kTerminator);
    settings.LoadFromStream(payload, "change notice");
  }
  if (in.good()) _commonDispatcher.OnChange(groups, settings);  // else the notice was cut off
}

void TavixSettingsClientImplMultiThreaded::HandleReply(const std::string& word, LinesToSkip& toSkip) {
  bool withdrawn = false;
  std::unique_ptr<RemoteCommand> command = TakeCommand(withdrawn);
  if (!command) {
    _logger->Error("Message received without corresponding request");
    return;
  }
  const ResponseStatus status = ReadReply(*command, word);
  if (!_pConnection->GetIstream()->good()) {  // cut off: the caller is failed with the connection
    std::lock_guard<std::mutex> lock(_handoverMutex);
    if (_callState == CallState::kHandled) _callState = CallState::kNone;
    _currentWithdrawn = false;
    command.reset();
    return;
  }
  if (!status.received) toSkip.Expect(word);
  Finish(std::move(command), withdrawn, status);
}

// The oldest command that awaits a reply; null when there is none. First without the right to write: a caller blocked
// in a large request, and a server blocked in a large reply, would else wait for each other. With it, a command whose
// request is written is certainly queued.
std::unique_ptr<RemoteCommand> TavixSettingsClientImplMultiThreaded::TakeCommand(bool& withdrawn) const {
  const auto tryTake = [&]() -> std::unique_ptr<RemoteCommand> {
    std::lock_guard<std::mutex> lock(_handoverMutex);
    withdrawn = !_withdrawn.empty();
    if (withdrawn) {
      std::unique_ptr<RemoteCommand> left = std::move(_withdrawn.front());
      _withdrawn.pop_front();
      return left;
    }
    if (_callState != CallState::kQueued) return nullptr;
    RemoteCommand* command = nullptr;
    _requestQueue.GetMsg(command, kWaitForever);
    _callState = CallState::kHandled;
    return std::unique_ptr<RemoteCommand>(command);
  };
  if (std::unique_ptr<RemoteCommand> command = tryTake()) return command;
  SendRight right(_sendMutex, kWaitForever);
  return tryTake();
}

TavixSettingsClientImplMultiThreaded::ResponseStatus TavixSettingsClientImplMultiThreaded::ReadReply(
    RemoteCommand& command, const std::string& word) const {
  ResponseStatus status;
  if (command._responseKeyword != word) return status;
  status.received = true;
  try {
    status.result = command.HandleResponse(*_pConnection->GetIstream());
  } catch (const std::exception& exception) {
    _logger->Error("Exception handling response from server: %s", exception.what());
  }
  return status;
}

void TavixSettingsClientImplMultiThreaded::Finish(std::unique_ptr<RemoteCommand> command, bool withdrawn,
                                                  ResponseStatus status) const {
  std::lock_guard<std::mutex> lock(_handoverMutex);
  command.reset();  // before its caller goes on: what the reply was read into is then the caller's alone
  if (withdrawn) return;
  if (_currentWithdrawn) {
    _currentWithdrawn = false;
    return;
  }
  _callState = CallState::kPosted;
  PostStatus(status);
}

void TavixSettingsClientImplMultiThreaded::CleanUp() {
  // Wakes a caller that is blocked in a write, and holds the right to write. Pipes never block it, and can't be made
  // again.
  if (!_pConnection->OutlivesClosing()) _pConnection->BreakConnection();
  _sendMutex.Lock(kWaitForever);
  PauseUnlessStopping(kRetryPause);
  DiscardCommands();
  PostStatus({});  // the failure stays for the next caller on purpose: whoever asks first after a loss is told
  _pConnection->CloseConnection();
  _pConnection->ClearStreams();
}

// Their callers are failed. Where replies still come, the commands stay for them as withdrawn ones.
void TavixSettingsClientImplMultiThreaded::DiscardCommands() const {
  std::lock_guard<std::mutex> lock(_handoverMutex);
  while (_requestQueue.GetSize() > 0) {
    _logger->Information("cleaning request queue");
    RemoteCommand* command = nullptr;
    _requestQueue.GetMsg(command, kWaitForever);
    _withdrawn.emplace_back(command);
  }
  if (!_pConnection->OutlivesClosing()) _withdrawn.clear();
  if (_callState != CallState::kPosted) _callState = CallState::kNone;  // what is posted is still its caller's alone
}

// A slot that is still full holds a failure that nobody has asked for yet; one is enough.
void TavixSettingsClientImplMultiThreaded::PostStatus(ResponseStatus status) const {
  try {
    _responseQueue.SendMsg(status);
  } catch (const osa::Exception& exception) {
    _logger->Trace("%s", exception.what());
  }
}

void TavixSettingsClientImplMultiThreaded::PauseUnlessStopping(unsigned int milliseconds) {
  if (!_stop && _stopping.TryLock(milliseconds)) _stopping.Release();
}

}  // namespace tavix::settings::client
