#include <algorithm>
#include <nlohmann/json.hpp>

#include "programs/bridge/core/DeviceMirror.h"
#include "programs/bridge/core/Hash.h"
#include "programs/bridge/formats/KeysJson.h"
#include "programs/common/client/JsonWriter.h"
#include "programs/common/client/Spelling.h"

// What the device publishes.
namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr std::chrono::hours kGoneExpiry(30 * 24);

std::set<std::string> FindMasked(const Rules& rules, const std::string& group, const Keys& keys) {
  std::set<std::string> masked;
  for (const auto& [key, value] : keys) {
    if (rules.IsMasked(group, key)) masked.insert(key);
  }
  return masked;
}

}  // namespace

void DeviceMirror::Run(Milliseconds now) {
  if (!_isLocalReady) return;
  if (_retry.IsDue(now)) {
    try {
      Work(now);
      _retry.OnWritten();
    } catch (const LocalLost&) {
      throw;
    } catch (const osa::Exception& error) {
      _retry.OnFailed(error.what(), now);
    }
  }
  if (_phase == Phase::kFollowing) SendStatus(now);
}

void DeviceMirror::Work(Milliseconds now) {
  AwaitMark(now);
  Confirm();
  if (_isToQueue) QueueAll();
  AdvanceDocuments(now);
  Govern(now);
  if (_areResultsDue) MakeResults();
  if (_phase != Phase::kFollowing) return;
  AskForMissing(now);
  AskForFitting();
  RetryRefused(now);
  SendDue(now);
  AddFitting();
  SendIndex(now);
}

// What was left out comes once there is room.
void DeviceMirror::AddFitting() {
  for (const std::string& group : _admission.TakeFitting()) _schedule.Add(_topics.GetReported(group));
  if (_admission.TakeForgotten()) _isToQueue = true;
}

// Results that arrived are not sent again.
void DeviceMirror::Confirm() {
  _publications.SetOthers(_confirmed);
  _confirmed.clear();
}

// Behind a new connection to the daemon nothing is known of what was missed.
void DeviceMirror::QueueAll() {
  const IniFile all = _local.Read(_rules.GetPatterns());
  _live.clear();
  for (const auto& [group, keys] : all) {
    if (_rules.Find(group) == nullptr) continue;
    _live.insert(group);
    _schedule.Add(_topics.GetReported(group));
  }
  for (const auto& [group, publication] : _publications.GetAll()) {
    if (!publication.isGone && _live.count(group) == 0) _schedule.Add(_topics.GetReported(group));
  }
  for (const auto& [group, keys] : _targets.groups) _ungoverned.insert(group);
  _isToQueue = false;
}

void DeviceMirror::RetryRefused(Milliseconds now) {
  for (const std::string& topic : _refusedPuts.TakeDue(now)) {
    if (topic == _topics.GetStatus() || topic == _topics.GetIndex()) continue;
    _forced.insert(topic);
    _schedule.Add(topic);
  }
}

void DeviceMirror::SendDue(Milliseconds now) {
  while (CanPut()) {
    const auto topic = _schedule.Take(now);
    if (!topic) return;
    try {
      if (SendTopic(*topic, now)) continue;
    } catch (const osa::Exception&) {
      _schedule.Add(*topic);
      throw;
    }
    _schedule.Add(*topic);
  }
}

// Returns whether it is on its way, or need not be.
bool DeviceMirror::SendTopic(const std::string& topic, Milliseconds now) {
  if (const auto group = _topics.FindReportedGroup(topic)) return SendReported(*group, now);
  if (topic.compare(0, _topics.GetReportedPrefix().size(), _topics.GetReportedPrefix()) != 0) {
    return SendResult(topic, now);
  }
  // No group has a name like that.
  if (!Put(topic, std::nullopt, {}, now)) return false;
  _forced.erase(topic);
  return true;
}

// What differs from what was last published gets the next version.
bool DeviceMirror::SendReported(const std::string& group, Milliseconds now) {
  const IniFile settings = _local.Read({group});
  const Keys keys = settings.HasGroup(group) && _rules.Find(group) != nullptr ? settings[group] : Keys();
  const std::set<std::string> masked = FindMasked(_rules, group, keys);
  const std::string content = programs::WriteJson(KeysToJson(keys, masked));
  const std::string topic = _topics.GetReported(group);
  if (keys.empty()) {
    _live.erase(group);
    _admission.Release(group);
  } else {
    _live.insert(group);
    if (!_admission.Admit(group, content.size() + group.size())) return true;
  }

  Hash hash;
  hash.Add(content);
  const Publication* last = _publications.Find(group);
  const bool isForced = _forced.count(topic) > 0;
  PutOptions options;
  if (last == nullptr && keys.empty()) {
    // What stands there is of a life that this state knows nothing of.
    if (isForced && !Put(topic, std::nullopt, options, now)) return false;
    _forced.erase(topic);
    return true;
  }
  const bool isNew = last == nullptr || last->content != hash.Get();
  if (!isNew && !isForced) return true;
  if (isNew) last = &_publications.Advance(group, hash.Get(), keys.empty());
  if (keys.empty()) options.expiry = kGoneExpiry;
  // Its version is kept already: whatever becomes of this put, one of that version has to arrive.
  _forced.insert(topic);
  if (!Put(topic, ComposeReported(_publications.GetEpoch(), last->version, keys, masked), options, now)) return false;
  _forced.erase(topic);
  return true;
}

bool DeviceMirror::SendResult(const std::string& topic, Milliseconds now) {
  const std::string name = topic.substr(_topics.GetResult("").size());
  const auto result = _results.find(name);
  const auto sent = _publications.FindOther(topic);
  std::optional<std::string> text;
  std::optional<std::uint64_t> content;
  if (result != _results.end()) {
    Hash hash;
    hash.Add(result->second);
    text = result->second;
    content = hash.Get();
  }
  if (sent == content && _forced.count(topic) == 0) {
    _refusedPuts.Remove(topic);  // what stands there is what is to be there
    return true;
  }
  if (!Put(topic, text, {}, now)) return false;
  _unconfirmed[topic] = content;
  _forced.erase(topic);
  return true;
}

// Behind everything that it is about.
void DeviceMirror::SendIndex(Milliseconds now) {
  const std::string topic = _topics.GetIndex();
  const size_t ofOthers =
      _refusedPuts.Count() - (_refusedPuts.Has(topic) ? 1 : 0) - (_refusedPuts.Has(_topics.GetStatus()) ? 1 : 0);
  if (!IsIdle() || ofOthers > 0 || !CanPut() || _refusedPuts.IsWaiting(topic)) return;
  if (_publications.GetAll().empty() && !_foundIndex) return;
  const std::string index = ComposeIndex(_publications.GetEpoch(), _publications.ComputeHash());
  if (_foundIndex == index || !Put(topic, index, {}, now)) return;
  _foundIndex = index;
}

void DeviceMirror::SendStatus(Milliseconds now) {
  const std::string topic = _topics.GetStatus();
  const std::string state = GetStatusState();
  const bool isDue = _sentStatus.empty() || state != _sentState || now - _statusAt >= _limits.statusInterval;
  if (!isDue || !CanPut() || _refusedPuts.IsWaiting(topic) || _schedule.IsInFlight(topic)) return;
  _statusAt = now;
  const std::string status = ComposeStatus(_identity.version, GetFigures(), state);
  if (status == _sentStatus || !Put(topic, status, {}, now)) return;
  _sentStatus = status;
  _sentState = state;
}

// All messages are counted: the engine takes no more than are on their way.
bool DeviceMirror::Put(const std::string& topic, const std::optional<std::string>& bytes, const PutOptions& options,
                       Milliseconds now) {
  _isEngineFull = !_engine.Put(topic, bytes, options);
  if (_isEngineFull) return false;
  _schedule.OnSent(topic, now);
  return true;
}

std::string DeviceMirror::GetStatusState() const {
  const MirrorState state = GetState();
  if (state.hasStateFailed) return "state-failed";
  if (state.held > 0) return "held";
  if (state.undecided > 0) return "undecided";
  return state.left > 0 ? "incomplete" : "mirroring";
}

std::map<std::string, unsigned long long> DeviceMirror::GetFigures() const {
  const Report::Counters& counters = _report.counters;
  return {{"groups", _admission.CountAdmitted()},
          {"documents", _book.GetOrigins().size()},
          {"sent", counters.sent},
          {"applied", counters.applied},
          {"overridden", counters.overridden},
          {"refused", counters.refused},
          {"stale", counters.stale},
          {"left-out", counters.leftOut},
          {"unsupported", counters.unsupported},
          {"held", _guard.GetHeld().size()}};
}

bool DeviceMirror::IsIdle() const {
  return _schedule.IsIdle() && _ungoverned.empty() && !_isToQueue && !_areResultsDue;
}

std::optional<Milliseconds> DeviceMirror::GetNext(Milliseconds now) const {
  if (!_isLocalReady) return std::nullopt;
  std::optional<Milliseconds> next;
  const auto consider = [&next](std::optional<Milliseconds> time) {
    if (time) next = std::min(next.value_or(*time), *time);
  };
  const bool isFollowing = _phase == Phase::kFollowing;
  const bool isStatusFree = CanPut() && !_schedule.IsInFlight(_topics.GetStatus());
  if (isFollowing && isStatusFree && !_refusedPuts.IsWaiting(_topics.GetStatus())) {
    consider(_statusAt + _limits.statusInterval);
  }
  if (_retry.HasFailed()) {
    consider(_retry.GetNext());
    return next;
  }
  if (_isToQueue || _areResultsDue || !_ungoverned.empty() || !_confirmed.empty()) return now;
  consider(_book.GetNext());
  for (const auto& [name, blocked] : _blocked) consider(blocked.next);
  if (!isFollowing) {
    if (_phase != Phase::kUnlinked) consider(_phaseSince.value_or(now) + kMarkWait);
    return next;
  }
  if (CanPut()) consider(_schedule.GetNext(now));
  consider(_refusedPuts.GetNext());
  if (_missingSince) consider(*_missingSince + _limits.missingAfter);
  return next;
}

}  // namespace tavix::bridge
