#include "tavix/settings/common/CallbackDispatcher.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/osa/ReadWriteLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/ChangeRound.h"
#include "tavix/settings/common/SmallChange.h"
#include "tavix/settings/common/Subscriptions.h"
#include "tavix/settings/common/TextCopy.h"

namespace tavix::settings::common {

using core::IniFile;
using osa::MutexAutoLock;
using osa::ReadAutoLock;
using osa::WriteAutoLock;

struct CallbackDispatcher::State {
  // Subscriptions change under both locks alone, so the mutex is enough to read them. The analysis of locks knows one
  // lock of a member.
  const Subscriptions& GetSubscriptions() const TAVIX_REQUIRES(mutex) TAVIX_NO_THREAD_SAFETY_ANALYSIS {
    return subscriptions;
  }

  // Of these the sizes alone, which are atomic, may be asked for without a lock.
  const Subscriptions& GetSizes() const TAVIX_NO_THREAD_SAFETY_ANALYSIS { return subscriptions; }

  osa::Mutex mutex{nullptr};  // held while callbacks run, and whenever subscriptions change
  osa::ReadWriteLock lock{"subscriptions"};
  Subscriptions subscriptions TAVIX_GUARDED_BY(lock);
  std::vector<ChangeRound*> rounds TAVIX_GUARDED_BY(lock);  // under way
  std::vector<TextCopy*> copies TAVIX_GUARDED_BY(lock);     // likewise
  SmallChange smallChange TAVIX_GUARDED_BY(mutex);
  std::atomic<unsigned long long> tried{0};
};

// A round that learns of all who come and go.
class CallbackDispatcher::RoundUnderWay {
 public:
  RoundUnderWay(State& state, const std::set<std::string>& changedGroups) : _state(state), _round(changedGroups) {
    WriteAutoLock lock(_state.lock);
    _state.rounds.push_back(&_round);
  }

  ~RoundUnderWay() {
    WriteAutoLock lock(_state.lock);
    _state.rounds.erase(std::find(_state.rounds.begin(), _state.rounds.end(), &_round));
  }

  RoundUnderWay(const RoundUnderWay&) = delete;
  RoundUnderWay& operator=(const RoundUnderWay&) = delete;

  void MatchAll() {
    const size_t triedBefore = _round.GetTried();
    while (MatchPiece()) {
    }
    _state.tried.fetch_add(_round.GetTried() - triedBefore, std::memory_order_relaxed);
  }

  ChangeRound& Get() { return _round; }

 private:
  bool MatchPiece() {
    ReadAutoLock lock(_state.lock);
    return _round.MatchPiece(_state.subscriptions);
  }

  State& _state;
  ChangeRound _round;
};

// A copy of all texts that learns of all that come and go.
class CallbackDispatcher::CopyUnderWay {
 public:
  explicit CopyUnderWay(State& state) : _state(state) {
    WriteAutoLock lock(_state.lock);
    _state.copies.push_back(&_copy);
  }

  ~CopyUnderWay() {
    WriteAutoLock lock(_state.lock);
    _state.copies.erase(std::find(_state.copies.begin(), _state.copies.end(), &_copy));
  }

  CopyUnderWay(const CopyUnderWay&) = delete;
  CopyUnderWay& operator=(const CopyUnderWay&) = delete;

  void CopyAll() {
    while (CopyPiece()) {
    }
  }

  // state: the copy's own.
  TextCopy Finish(const State& state) TAVIX_REQUIRES(state.mutex) {
    _copy.Finish(state.GetSubscriptions().GetIndex());
    return std::move(_copy);
  }

 private:
  bool CopyPiece() {
    ReadAutoLock lock(_state.lock);
    return _copy.CopyPiece(_state.subscriptions.GetIndex());
  }

  State& _state;
  TextCopy _copy;
};

CallbackDispatcher::CallbackDispatcher() : _state(std::make_unique<State>()) {}

CallbackDispatcher::~CallbackDispatcher() = default;

void CallbackDispatcher::AddCallback(IChangeCallback* cb, const std::set<std::string>& groups) {
  Add(cb, {&groups});
}

void CallbackDispatcher::AddCallback(IChangeCallback* cb, const GroupNameMatcher& matcher) {
  Add(cb, {&matcher.GetNames(), &matcher.GetPatterns()});
}

void CallbackDispatcher::Add(IChangeCallback* cb, std::initializer_list<const std::set<std::string>*> groups) {
  MutexAutoLock lock(_state->mutex);
  WriteAutoLock change(_state->lock);
  Subscriber& subscriber = _state->subscriptions.Get(cb);
  for (const std::set<std::string>* texts : groups) {
    const std::vector<PatternIndex::Id> added = _state->subscriptions.Add(subscriber, *texts);
    for (ChangeRound* round : _state->rounds) round->OnAdded(subscriber, added);
    for (TextCopy* copy : _state->copies) copy->OnChanged(added);
  }
}

void CallbackDispatcher::Probe() const {
  MutexAutoLock lock(_state->mutex);
}

void CallbackDispatcher::OnChange(const std::set<std::string>& changedGroups, const IniFile& settings) const {
  Notify(nullptr, changedGroups, settings, {});
}

void CallbackDispatcher::OnChange(const IniFile& settings) const {
  Notify(nullptr, settings, {});
}

void CallbackDispatcher::OnChange(osa::Mutex& gate, const std::set<std::string>& changedGroups, const IniFile& settings,
                                  const std::function<void()>& afterPiece) const {
  Notify(&gate, changedGroups, settings, afterPiece);
}

void CallbackDispatcher::OnChange(osa::Mutex& gate, const IniFile& settings,
                                  const std::function<void()>& afterPiece) const {
  Notify(&gate, settings, afterPiece);
}

void CallbackDispatcher::OnChangeOfOne(osa::Mutex& gate, const std::set<std::string>& changedGroup,
                                       const IniFile& settings) const {
  const MutexAutoLock gateLock(gate);
  const MutexAutoLock lock(_state->mutex);
  const Subscriptions& subscriptions = _state->GetSubscriptions();
  for (const auto& [callback, subscriber] : subscriptions.GetCallbacks()) {
    if (subscriptions.HasMatching(subscriber, *changedGroup.begin())) callback->OnChange(changedGroup, settings);
  }
}

void CallbackDispatcher::Notify(osa::Mutex* gate, const IniFile& settings,
                                const std::function<void()>& afterPiece) const {
  if (_state->GetSizes().IsEmpty()) return;
  std::set<std::string> changedGroups;
  for (const auto& group : settings) changedGroups.insert(changedGroups.end(), group.first);
  Notify(gate, changedGroups, settings, afterPiece);
}

void CallbackDispatcher::Notify(osa::Mutex* gate, const std::set<std::string>& changedGroups, const IniFile& settings,
                                const std::function<void()>& afterPiece) const {
  if (_state->GetSizes().IsEmpty() || NotifyAtOnce(gate, changedGroups, settings)) return;
  constexpr int kMaxRestarts = 2;
  RoundUnderWay round(*_state, changedGroups);
  bool goesOn = true;
  for (int piece = 0; goesOn; ++piece) {
    round.MatchAll();
    AwaitOthers(gate);
    goesOn = CallPiece(gate, round, piece < kMaxRestarts, settings);
    if (goesOn && afterPiece) afterPiece();
  }
}

// Returns whether the round goes on.
bool CallbackDispatcher::CallPiece(osa::Mutex* gate, RoundUnderWay& round, bool mayRestart,
                                   const IniFile& settings) const {
  std::optional<MutexAutoLock> gateLock;
  if (gate) gateLock.emplace(*gate);
  MutexAutoLock lock(_state->mutex);
  if (!mayRestart || !round.Get().IsOutdated()) {
    return round.Get().CallPiece(_state->GetSubscriptions(), settings, _callsInPieces.load(std::memory_order_relaxed));
  }
  round.Get().Restart();
  return true;
}

// A round that calls many is long. Between two pieces of it others have their turn.
void CallbackDispatcher::AwaitOthers(osa::Mutex* gate) const {
  if (_state->mutex.IsHeldByThisThread()) return;
  if (gate) gate->AwaitWaiter();
  _state->mutex.AwaitWaiter();
}

// False, and nobody is told, when it would take long to find the subscribers.
bool CallbackDispatcher::NotifyAtOnce(osa::Mutex* gate, const std::set<std::string>& changedGroups,
                                      const IniFile& settings) const {
  if (!SmallChange::IsSmall(changedGroups)) return false;
  std::optional<MutexAutoLock> gateLock;
  if (gate) gateLock.emplace(*gate);
  MutexAutoLock lock(_state->mutex);
  SmallChange& change = _state->smallChange;
  const bool isDone = change.Match(_state->GetSubscriptions(), changedGroups);
  if (change.GetTried() > 0) _state->tried.fetch_add(change.GetTried(), std::memory_order_relaxed);
  if (isDone) change.CallAll(changedGroups, settings);
  return isDone;
}

void CallbackDispatcher::GetAllSubscribedGroups(std::set<std::string>& out) const {
  Probe();  // a callback that asks is refused before anything is copied
  TextCopy all;
  {
    CopyUnderWay copy(*_state);
    copy.CopyAll();
    MutexAutoLock lock(_state->mutex);
    all = copy.Finish(*_state);
  }
  all.MoveTo(out);
}

size_t CallbackDispatcher::CountSubscriptionBytes() const {
  return _state->GetSizes().CountBytes();
}

size_t CallbackDispatcher::CountSubscriptions() const {
  return _state->GetSizes().CountTexts();
}

unsigned long long CallbackDispatcher::CountTriedPatterns() const {
  return _state->tried.load(std::memory_order_relaxed);
}

bool CallbackDispatcher::WouldExceedMaxAlikePatterns(const std::set<std::string>& groups) const {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  return WouldExceedMaxAlikePatterns(matcher);
}

bool CallbackDispatcher::WouldExceedMaxAlikePatterns(const GroupNameMatcher& matcher) const {
  const size_t max = GetMaxAlikePatterns();
  if (max == 0 || matcher.GetPatterns().empty()) return false;
  ReadAutoLock lock(_state->lock);
  return _state->subscriptions.GetIndex().CountAlikeWith(matcher.GetPatterns()) > max;
}

bool CallbackDispatcher::WouldCallMoreThan(size_t max, const std::set<std::string>& changedGroups) const {
  const auto nameOf = [](const std::string& group) -> const std::string& { return group; };
  return WouldCallMoreThan(max, changedGroups, nameOf);
}

bool CallbackDispatcher::WouldCallMoreThan(size_t max, const IniFile& settings) const {
  const auto nameOf = [](const auto& group) -> const std::string& { return group.first; };
  return WouldCallMoreThan(max, settings.GetGroups(), nameOf);
}

template <class Groups, class NameOf>
bool CallbackDispatcher::WouldCallMoreThan(size_t max, const Groups& groups, NameOf nameOf) const {
  if (groups.size() * _state->GetSizes().CountSubscribers() <= max) return false;
  PatternIndex::Search search;
  search.SetMaxTried(max);
  size_t calls = 0;
  ReadAutoLock lock(_state->lock);
  for (const auto& group : groups) {
    if (!_state->subscriptions.GetIndex().FindMatching(nameOf(group), search)) return true;
    for (const PatternIndex::Id text : search.GetFound())
      calls += _state->subscriptions.GetSubscribersOf(text).GetSize();
    if (calls > max) return true;
  }
  return false;
}

void CallbackDispatcher::RemoveCallback(IChangeCallback* cb) {
  MutexAutoLock lock(_state->mutex);
  WriteAutoLock change(_state->lock);
  const Subscriber* const subscriber = _state->subscriptions.Find(cb);
  if (!subscriber) return;
  for (ChangeRound* round : _state->rounds) round->OnRemoved(*subscriber);
  for (TextCopy* copy : _state->copies) copy->OnChanged(subscriber->texts);
  _state->subscriptions.Remove(cb);
}

}  // namespace tavix::settings::common
