#include "programs/server/trials/TrialBook.h"

#include <algorithm>
#include <utility>

#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

using settings::server::PlannedChange;
using settings::server::RefusedChange;

namespace {

constexpr uid_t kRoot = 0;

RefusedChange Refusal(const std::string& text) {
  return RefusedChange(RefusedChange::Reason::kTrial, text);
}

bool IsPending(const Trial& trial) {
  return trial.state == Trial::State::kPending;
}

// What nobody armed is anybody's.
bool MayChange(const Trial& trial, const TrialBook::Client& client) {
  return trial.client.user == TrialBook::Client::kNoUser || client.user == trial.client.user || client.user == kRoot ||
         client.connection == TrialBook::Client::Connection::kDaemon;
}

RefusedChange NotPending(const std::string& name, const std::string& reason) {
  return Refusal("trial '" + name + "' is not pending: " + reason);
}

// Its settings are about to go back.
void RequireTime(const std::string& name, const Trial& trial, Trial::Time now) {
  if (trial.end <= now) throw NotPending(name, "its time is over");
}

void RequireOwner(const std::string& name, const Trial& trial, const TrialBook::Client& client) {
  if (!MayChange(trial, client))
    throw Refusal("trial '" + name + "' belongs to user " + std::to_string(trial.client.user));
}

}  // namespace

const char* NameOf(Trial::State state) {
  switch (state) {
    case Trial::State::kConfirmed:
      return "confirmed";
    case Trial::State::kReverted:
      return "reverted";
    case Trial::State::kPending:
      break;
  }
  return "pending";
}

void TrialBook::Prepare(const PlannedChange& change, Time now) {
  _losses.clear();
  _armed.clear();
  _reverted = nullptr;
  _preparedLines.clear();
  if (change.origin.isRevert) return PrepareRevert(std::string(change.origin.trial), now);
  std::optional<TrialOrder> order;
  if (!change.origin.trial.empty()) {
    order = TrialOrder::Read(change.origin.trial);
    Forget(now);
    RequireArmable(*order, change.origin.client, now);
  }
  if (!change.isSaved) return;
  OldSettings inherited;
  PrepareOthers(change, order ? order->name : std::string(), inherited);
  if (order) Arm(*order, change, std::move(inherited), now);
}

void TrialBook::PrepareRevert(const std::string& name, Time now) {
  Trial* const trial = FindPendingTrial(name);
  if (!trial || !trial->isPlanned) throw OutdatedRevert();
  _preparedLines = SpellEnd(name, NameOf(Trial::State::kReverted));
  _reverted = trial;
  _revertTime = now;
}

// inherited: gets what they lose, with its old values.
void TrialBook::PrepareOthers(const PlannedChange& change, const std::string& own, OldSettings& inherited) {
  for (auto& [name, trial] : _trials) {
    if (!IsPending(trial) || name == own) continue;
    Loss loss{trial, FindWritten(change, trial.settings), {}};
    if (loss.settings.empty()) continue;
    _preparedLines += SpellPending(name, trial.client);
    for (const auto at : loss.settings) {
      AppendWrittenSetting(at->first, _preparedLines);
      loss.written.insert(loss.written.end(), at->first);
      if (!own.empty()) inherited.insert(*at);
    }
    _losses.push_back(std::move(loss));
  }
}

// settings: those that other trials lose.
void TrialBook::Arm(const TrialOrder& order, const PlannedChange& change, OldSettings settings, Time now) {
  OldSettings written = FindWritten(change);
  settings.merge(written);
  const Trial* const known = FindPendingTrial(order.name);
  if (settings.empty() && !known) return;
  if (known) {
    for (auto next = settings.begin(); next != settings.end();)
      next = known->settings.count(next->first) != 0 ? settings.erase(next) : std::next(next);
  }
  Trial& armed = _armed[order.name];
  size_t growth = 0;
  for (const auto& setting : settings) {
    armed.bytes += CountBytes(setting);
    growth += CountBytes(setting) - (known && known->written.count(setting.first) ? CountBytes(setting.first) : 0);
  }
  RequireRoom(growth, now);
  armed.client = known ? known->client : change.origin.client;
  armed.note = change.origin.note;
  armed.end = now + order.time;
  _preparedLines += SpellPending(order.name, armed.client);
  AppendOldSettings(settings, _preparedLines);
  armed.settings = std::move(settings);
}

// What has ended is forgotten for what is to come.
void TrialBook::RequireRoom(size_t bytes, Time now) {
  if (_maxBytes == 0) return;
  size_t held = 0;
  do {
    held = 0;
    for (const auto& trial : _trials) held += trial.second.bytes;
  } while (held + bytes > _maxBytes && ForgetNext(now, false));
  if (held + bytes <= _maxBytes) return;
  throw RefusedChange(RefusedChange::Reason::kTrialBytes,
                      "what is on trial takes about " + std::to_string(held) + " bytes of the " +
                          std::to_string(_maxBytes) + " allowed, and would get " + std::to_string(bytes) + " more");
}

// Asks for no memory.
std::string TrialBook::Commit(uint64_t revision) noexcept {
  CommitLosses();
  if (!_armed.empty()) CommitArmed(revision);
  if (_reverted) {
    End(*_reverted, Trial::State::kReverted, _revertTime);
    _reverted->revision = revision;
    _reverted = nullptr;
  }
  std::string lines;
  lines.swap(_preparedLines);
  return lines;
}

void TrialBook::CommitLosses() noexcept {
  for (Loss& loss : _losses) {
    Trial& trial = loss.trial;
    for (const auto at : loss.settings) {
      trial.bytes -= at->second ? at->second->size() : 0;  // the name stays
      trial.settings.erase(at);
    }
    trial.written.merge(loss.written);
    trial.isPlanned = false;
  }
  _losses.clear();
}

void TrialBook::CommitArmed(uint64_t revision) noexcept {
  auto node = _armed.extract(_armed.begin());
  Trial& armed = node.mapped();
  armed.revision = revision;
  const auto known = _trials.find(node.key());
  if (known == _trials.end() || !IsPending(known->second)) {
    if (known != _trials.end()) _trials.erase(known);
    _trials.insert(std::move(node));
    return;
  }
  Trial& trial = known->second;
  for (const auto& setting : armed.settings) {
    const auto written = trial.written.find(setting.first);
    if (written == trial.written.end()) continue;
    trial.bytes -= CountBytes(*written);
    trial.written.erase(written);
  }
  trial.bytes += armed.bytes;
  trial.settings.merge(armed.settings);
  if (!armed.note.empty()) trial.note.swap(armed.note);
  if (revision != 0) trial.revision = revision;
  trial.end = armed.end;
  trial.isPlanned = false;
}

bool TrialBook::HasPending() const {
  return std::any_of(_trials.begin(), _trials.end(), [](const auto& trial) { return IsPending(trial.second); });
}

size_t TrialBook::CountPending() const {
  return static_cast<size_t>(
      std::count_if(_trials.begin(), _trials.end(), [](const auto& trial) { return IsPending(trial.second); }));
}

void TrialBook::RequireArmable(const TrialOrder& order, const Client& client, Time now) const {
  const Trial* const known = Find(order.name);
  if (known && IsPending(*known)) {
    RequireOwner(order.name, *known, client);
    RequireTime(order.name, *known, now);
  } else if (CountPending() >= _maxPending) {
    throw Refusal(std::to_string(_maxPending) + " trials are pending already");
  }
}

const Trial* TrialBook::Find(const std::string& name) const {
  const auto found = _trials.find(name);
  return found == _trials.end() ? nullptr : &found->second;
}

// Null: none of that name is pending.
Trial* TrialBook::FindPendingTrial(const std::string& name) {
  const auto found = _trials.find(name);
  return found == _trials.end() || !IsPending(found->second) ? nullptr : &found->second;
}

// One that is pending, and that the client may end.
const Trial& TrialBook::FindOwned(const std::string& name, const Client& client) const {
  const Trial* const trial = Find(name);
  if (!trial) throw Refusal("no trial is named '" + name + "'");
  if (!IsPending(*trial)) throw NotPending(name, std::string("it was ") + NameOf(trial->state));
  RequireOwner(name, *trial, client);
  return *trial;
}

void TrialBook::RequireRevertible(const std::string& name, const Client& client) const {
  FindOwned(name, client);
}

std::string TrialBook::SpellConfirmation(const std::string& name, const Client& client, Time now) {
  Forget(now);
  RequireTime(name, FindOwned(name, client), now);
  return SpellEnd(name, NameOf(Trial::State::kConfirmed));
}

void TrialBook::Confirm(const std::string& name, Time now) {
  Trial* const trial = FindPendingTrial(name);
  if (trial) End(*trial, Trial::State::kConfirmed, now);
}

void TrialBook::BeginPlan(const std::string& name) {
  Trial* const trial = FindPendingTrial(name);
  if (trial) trial->isPlanned = true;
}

std::string TrialBook::EndReverted(const std::string& name, Time now) {
  Trial* const trial = FindPendingTrial(name);
  if (!trial || !trial->isPlanned) return "";
  std::string lines = SpellEnd(name, NameOf(Trial::State::kReverted));
  End(*trial, Trial::State::kReverted, now);
  trial->revision = 0;
  return lines;
}

// Asks for no memory, and destroys nothing large, as long as what was released before is taken.
void TrialBook::End(Trial& trial, Trial::State state, Time now) noexcept {
  trial.state = state;
  trial.end = now + kKeptAfterEnd;
  _released.swap(trial.settings);
  trial.settings.clear();
  trial.bytes = 0;
  for (const SettingName& name : trial.written) trial.bytes += CountBytes(name);
  trial.isPlanned = false;
}

OldSettings TrialBook::TakeReleased() noexcept {
  OldSettings released;
  released.swap(_released);
  return released;
}

std::vector<std::string> TrialBook::FindPending() const {
  return FindDue(Time::max());
}

std::vector<std::string> TrialBook::FindDue(Time now) const {
  std::vector<std::string> due;
  for (const auto& [name, trial] : _trials) {
    if (IsPending(trial) && trial.end <= now) due.push_back(name);
  }
  return due;
}

std::optional<TrialBook::Time> TrialBook::FindNextEnd() const {
  std::optional<Time> next;
  for (const auto& [name, trial] : _trials) {
    if (IsPending(trial)) next = std::min(next.value_or(trial.end), trial.end);
  }
  return next;
}

std::vector<std::string> TrialBook::FindKnown(Time now) {
  Forget(now);
  std::vector<std::string> names;
  for (const auto& trial : _trials) names.push_back(trial.first);
  return names;
}

std::optional<Trial> TrialBook::FindTrial(const std::string& name) const {
  const Trial* const found = Find(name);
  if (!found) return std::nullopt;
  Trial trial;
  trial.state = found->state;
  trial.client = found->client;
  trial.note = found->note;
  trial.revision = found->revision;
  trial.end = found->end;
  if (found->state == Trial::State::kReverted) trial.written = found->written;
  return trial;
}

OldSettings TrialBook::GetSettings(const std::string& name, const SettingName* last) const {
  OldSettings part;
  const Trial* const trial = Find(name);
  if (!trial) return part;
  auto at = last ? trial->settings.upper_bound(*last) : trial->settings.begin();
  for (; at != trial->settings.end() && part.size() < kMaxAtOnce; ++at) part.insert(part.end(), *at);
  return part;
}

void TrialBook::Forget(Time now) {
  while (ForgetNext(now, true)) continue;
}

// The one that is the next to be forgotten. False: there is none.
bool TrialBook::ForgetNext(Time now, bool isDueOnly) {
  auto first = _trials.end();
  size_t ended = 0;
  for (auto at = _trials.begin(); at != _trials.end(); ++at) {
    if (IsPending(at->second)) continue;
    ++ended;
    if (first == _trials.end() || at->second.end < first->second.end) first = at;
  }
  if (ended == 0 || (isDueOnly && ended <= kMaxEnded && first->second.end > now)) return false;
  _trials.erase(first);
  return true;
}

std::string TrialBook::Spell() const {
  std::string lines;
  for (const auto& [name, trial] : _trials) {
    if (!IsPending(trial)) continue;
    lines += SpellPending(name, trial.client);
    AppendOldSettings(trial.settings, lines);
  }
  return lines;
}

// One that was known before may have ended before these lines.
void TrialBook::OnPending(const std::string& trial, const Client& client) {
  Trial& found = _trials[trial];
  if (!IsPending(found)) found = Trial();
  found.client = client;
}

void TrialBook::OnSetting(const std::string& trial, SettingName name, std::optional<std::string> old) {
  Trial& found = _trials[trial];
  const auto [setting, isNew] = found.settings.emplace(std::move(name), std::move(old));
  if (isNew) found.bytes += CountBytes(*setting);
}

void TrialBook::OnWritten(const std::string& trial, const SettingName& name) {
  Trial& found = _trials[trial];
  const auto setting = found.settings.find(name);
  if (setting == found.settings.end()) return;
  found.bytes -= CountBytes(*setting);
  found.settings.erase(setting);
}

void TrialBook::OnEnd(const std::string& trial, std::string_view) {
  _trials.erase(trial);
}

}  // namespace tavix::daemon
