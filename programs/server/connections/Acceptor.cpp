#include "programs/server/connections/Acceptor.h"

#include <fcntl.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "programs/server/connections/EventLoop.h"
#include "programs/server/connections/LogPeer.h"
#include "programs/server/system/SocketName.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Server");
  return logger;
}

constexpr int kPause = 100;  // milliseconds
constexpr int kAcceptsInARow = 64;
constexpr size_t kMaxAcceptsOnLoop = 64;
constexpr std::chrono::milliseconds kMaxWaitForPlace{1000};
const std::string kAnybody = "all peers";  // for the log, before it is known who connects

osa::Descriptor OpenSpare() {
  return osa::Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

// Another connection may wait.
bool IsGone(int error) {
  return error == EINTR || error == ECONNABORTED;
}

osa::Descriptor MakeEvent() {
  osa::Descriptor event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event) throw osa::Exception("Failed to make an event descriptor: %s", std::strerror(errno));
  return event;
}

}  // namespace

Acceptor::Acceptor(std::vector<Listener> listeners, std::vector<uid_t> allowedUsers, size_t maxConnections,
                   Counters& counters)
    : _allowedUsers(std::move(allowedUsers)),
      _maxConnections(maxConnections),
      _counters(counters),
      _places(maxConnections),
      _callOfMain(MakeEvent()),
      _spare(OpenSpare()) {
  for (Listener& listener : listeners) _doors.emplace_back(*this, std::move(listener));
}

Acceptor::~Acceptor() {
  Close();
}

std::vector<std::string> Acceptor::GetAddresses() const {
  std::vector<std::string> addresses;
  for (const Door& door : _doors) addresses.push_back(door.GetListener().GetAddress());
  return addresses;
}

// Connections that can't be taken now stay in the queues of listeners, which are then not watched.
int Acceptor::Watch(std::vector<pollfd>& watched) {
  if (_entry == Entry::kOpen && !_mustPause) LetLoopsAccept();
  watched.push_back({_callOfMain.Get(), POLLIN, 0});
  watched.push_back({_places.GetDescriptor(), POLLIN, 0});
  const bool accepts = !_mustPause && _entry != Entry::kWaiting && !DoLoopsAccept();
  for (const Door& door : _doors) watched.push_back({accepts ? door.GetListener().GetDescriptor() : -1, POLLIN, 0});
  const int timeout = FindTimeout();
  _pauses = std::exchange(_mustPause, false);
  return timeout;
}

int Acceptor::FindTimeout() const {
  if (_mustPause) return kPause;
  if (_entry != Entry::kWaiting) return -1;
  const auto left = _waitsSince + kMaxWaitForPlace - Clock::now();
  return std::max(0, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
}

void Acceptor::Serve(const pollfd* watched) {
  eventfd_t ignored = 0;
  if (watched[0].revents) eventfd_read(_callOfMain.Get(), &ignored);
  if (watched[1].revents) _places.Acknowledge();
  if (_pauses || DoLoopsAccept()) return;
  try {
    AcceptOnMain();
  } catch (const std::exception&) {
    _mustPause = true;  // there is no memory to refuse a connection
  }
}

// Afterwards no loop touches a listener, whatever events it still has.
void Acceptor::Close() {
  osa::PlainMutexLock lock(_mutex);
  if (_doLoopsAccept) UnwatchAll();
  for (Door& door : _doors) door.Close();
}

// What is left waiting is reported again in the loop's next round.
void Acceptor::AcceptOnLoop(const Door& door, EventLoop& loop, size_t max) {
  bool hasPassedOn = false;
  for (size_t i = 0; i < std::min(max, kMaxAcceptsOnLoop); ++i) {
    Arrival arrival;
    const Outcome outcome = AcceptOneOnLoop(door, arrival);
    if (outcome == Outcome::kAccepted) {
      if (GiveToLoop(std::move(arrival), &loop)) hasPassedOn = true;
    } else if (outcome != Outcome::kGone) {
      break;
    }
  }
  if (hasPassedOn) WatchAnew(loop);
}

Acceptor::Outcome Acceptor::AcceptOneOnLoop(const Door& door, Arrival& arrival) {
  osa::PlainMutexLock lock(_mutex);
  if (!_doLoopsAccept) return Outcome::kNobody;
  const Outcome outcome = AcceptOne(door.GetListener(), arrival);
  if (outcome == Outcome::kNoPlace || outcome == Outcome::kFailed) LeaveToMain();
  return outcome;
}

// By who has the right to accept.
Acceptor::Outcome Acceptor::AcceptOne(const Listener& listener, Arrival& arrival) {
  if (!_places.Take()) return listener.DoesAnybodyWait() ? Outcome::kNoPlace : Outcome::kNobody;
  arrival.isUnix = listener.IsUnix();
  arrival.descriptor = osa::Descriptor(listener.Accept(arrival.peer));
  if (arrival.descriptor) return Outcome::kAccepted;
  arrival.error = errno;
  _places.Free();
  if (arrival.error == EAGAIN) return Outcome::kNobody;
  return IsGone(arrival.error) ? Outcome::kGone : Outcome::kFailed;
}

// caller: null: main. Returns whether a loop has passed the connection on to another one.
bool Acceptor::GiveToLoop(Arrival arrival, EventLoop* caller) {
  if (!MayEnter(arrival)) {
    arrival.descriptor.Reset();
    _places.Free();
    return false;
  }
  _counters.accepted.Add();
  EventLoop* receiver = &ChooseLoop(caller);
  // One that waits for the disk since it was chosen is not chosen again.
  while (receiver != caller && !receiver->TryAdd(arrival.descriptor)) receiver = &ChooseLoop(caller);
  if (receiver == caller) caller->TakeAccepted(std::move(arrival.descriptor), arrival.peer);
  return receiver != caller && caller;
}

// The permissions of a unix socket's file have let the process in already.
bool Acceptor::MayEnter(const Arrival& arrival) const noexcept {
  if (_allowedUsers.empty() || !arrival.isUnix) return true;
  const int descriptor = arrival.descriptor.Get();
  const std::optional<ucred> peer = FindPeerProcess(descriptor);
  if (peer && std::count(_allowedUsers.begin(), _allowedUsers.end(), peer->uid) > 0) return true;
  _counters.Count(Refusal::kUser);
  try {
    const std::string name = PeerWithoutPort(descriptor);
    const LogPeer logPeer(name);
    Log()->Warning("Connection refused: %s is not allowed", PeerName(descriptor).c_str());
  } catch (const std::exception&) {
    // A line that can't be written for want of memory is left out.
  }
  return false;
}

// The caller's own loop is not stuck.
EventLoop& Acceptor::ChooseLoop(EventLoop* caller) {
  const auto callers = std::find(_loops.begin(), _loops.end(), caller);
  const size_t preferred = callers == _loops.end() ? 0 : static_cast<size_t>(callers - _loops.begin());
  return *_loops[_choice.Choose(_loops.size(), preferred, [&](size_t index) {
    const EventLoop& loop = *_loops[index];
    if (loop.IsSyncing()) return LoopBurden{true, LoopLoad::kFull, SIZE_MAX};  // takes none: any other is better
    const LoopLoad& load = loop.GetPoll().GetLoad();
    return LoopBurden{&loop != caller && load.IsStuck(), load.GetPermille(), loop.CountConnections()};
  })];
}

bool Acceptor::DoLoopsAccept() {
  osa::PlainMutexLock lock(_mutex);
  return _doLoopsAccept;
}

// When a loop can't watch, main goes on.
void Acceptor::LetLoopsAccept() {
  if (!_spare) _spare = OpenSpare();
  osa::PlainMutexLock lock(_mutex);
  if (_doLoopsAccept) return;
  _doLoopsAccept = true;
  for (EventLoop* loop : _loops) {
    if (!WatchOn(*loop)) return UnwatchAll();
  }
}

void Acceptor::LeaveToMain() {
  UnwatchAll();
  eventfd_write(_callOfMain.Get(), 1);
}

// Of the loops that wait, the one that watched first is woken.
void Acceptor::WatchAnew(EventLoop& loop) {
  osa::PlainMutexLock lock(_mutex);
  if (!_doLoopsAccept || &loop == _lastWatched) return;
  UnwatchOn(loop);
  if (!WatchOn(loop)) LeaveToMain();
}

bool Acceptor::WatchOn(EventLoop& loop) {
  _lastWatched = &loop;
  for (Door& door : _doors) {
    if (!loop.GetPoll().Watch(door.GetListener().GetDescriptor(), door)) return false;
  }
  return true;
}

void Acceptor::UnwatchOn(EventLoop& loop) {
  for (const Door& door : _doors) loop.GetPoll().Unwatch(door.GetListener().GetDescriptor());
}

void Acceptor::UnwatchAll() {
  _doLoopsAccept = false;
  for (EventLoop* loop : _loops) UnwatchOn(*loop);
}

// From all listeners. Main alone has the right to accept, so that who waited still does when it is asked anew.
void Acceptor::AcceptOnMain() {
  bool doesAnybodyWait = false;
  for (const Door& door : _doors) {
    if (!door.GetListener().DoesAnybodyWait()) continue;
    doesAnybodyWait = true;
    if (!AcceptFrom(door.GetListener())) _mustPause = true;
  }
  if (!doesAnybodyWait && _entry == Entry::kWaiting) _entry = Entry::kOpen;
}

// False when somebody waits who can be neither taken nor refused.
bool Acceptor::AcceptFrom(const Listener& listener) {
  for (int i = 0; i < kAcceptsInARow; ++i) {
    Arrival arrival;
    const Outcome outcome = AcceptOne(listener, arrival);
    if (outcome == Outcome::kNoPlace) return OnNoPlace(listener);
    _entry = Entry::kOpen;
    if (outcome == Outcome::kNobody) return true;
    if (outcome == Outcome::kFailed && !RefuseOne(listener, arrival.error)) return false;
    if (outcome == Outcome::kAccepted) GiveToLoop(std::move(arrival), nullptr);
  }
  return true;
}

// As AcceptFrom.
bool Acceptor::OnNoPlace(const Listener& listener) {
  const auto now = Clock::now();
  if (_entry == Entry::kOpen) {
    _entry = Entry::kWaiting;
    _waitsSince = now;
  } else if (_entry == Entry::kWaiting && now - _waitsSince >= kMaxWaitForPlace) {
    _entry = Entry::kRefusing;
  }
  return _entry != Entry::kRefusing || RefuseQueue(listener);
}

// As AcceptFrom.
bool Acceptor::RefuseQueue(const Listener& listener) {
  for (int i = 0; i < kAcceptsInARow; ++i) {
    SocketAddress ignored;
    const osa::Descriptor descriptor(listener.Accept(ignored));
    const int error = errno;
    if (!descriptor) return error == EAGAIN || IsGone(error) || RefuseOne(listener, error);
    _counters.Count(Refusal::kTooMany);
    const std::string name = PeerWithoutPort(descriptor.Get());
    const LogPeer peer(name);
    Log()->Warning("Connection refused: %zu are served already", _maxConnections);
  }
  return true;
}

// Without a free descriptor a connection can't even be refused, and would keep the listener readable for ever. False
// when it could not be refused either.
bool Acceptor::RefuseOne(const Listener& listener, int error) {
  const LogPeer peer(kAnybody);
  Log()->Warning("Connection refused: %s", std::strerror(error));
  _counters.Count(Refusal::kDescriptors);
  _spare.Reset();
  SocketAddress ignored;
  osa::Descriptor refused(listener.Accept(ignored));
  const bool isRefused = static_cast<bool>(refused);
  refused.Reset();
  _spare = OpenSpare();
  return isRefused;
}

}  // namespace tavix::daemon
