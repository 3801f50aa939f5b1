#include "programs/server/trials/TrialBook.h"

#include <algorithm>
#include <utility>

#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

using settings::server::PlannedChange;
using settings::server::RefusedChange;
using settings::server::StoreAmendment;

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
  _prepared.clear();
  _preparedLines.clear();
  _changed.clear();
  if (change.origin.isRevert) return PrepareRevert(std::string(change.origin.trial), now);
  std::optional<TrialOrder> order;
  if (!change.origin.trial.empty()) {
    order = TrialOrder::Read(change.origin.trial);
    Forget(now);
    RequireArmable(*order, change.origin.client, now);
  }
  if (!change.isSaved) return;
  OldSettings settings;
  PrepareOthers(change, order ? order->name : std::string(), settings);
  if (order) Arm(*order, change, std::move(settings), now);
}

void TrialBook::PrepareRevert(const std::string& name, Time now) {
  const Trial* const trial = Find(name);
  if (!trial || !trial->isPlanned) throw OutdatedRevert();
  Trial ended = *trial;
  End(ended, Trial::State::kReverted, now);
  _preparedLines = SpellEnd(name, NameOf(ended.state));
  _prepared.emplace(name, std::move(ended));
  _changed = name;
}

// taken: gets what they lose, with its old values.
void TrialBook::PrepareOthers(const PlannedChange& change, const std::string& own, OldSettings& taken) {
  for (const auto& [name, trial] : _trials) {
    if (!IsPending(trial) || name == own || !WritesAny(change, trial.settings)) continue;
    Trial other = trial;
    other.isPlanned = false;
    OldSettings lost = TakeWritten(change, other.settings);
    _preparedLines += SpellPending(name, other.client);
    AppendWrittenSettings(lost, _preparedLines);
    for (const auto& setting : lost) other.written.insert(setting.first);
    _prepared.emplace(name, std::move(other));
    taken.merge(lost);
  }
}

// settings: those that other trials lose.
void TrialBook::Arm(const TrialOrder& order, const PlannedChange& change, OldSettings settings, Time now) {
  OldSettings written = FindWritten(change);
  settings.merge(written);
  const Trial* const known = Find(order.name);
  const bool isAddition = known && IsPending(*known);
  if (settings.empty() && !isAddition) return;
  Trial trial = isAddition ? *known : Trial();
  if (!isAddition) trial.client = change.origin.client;
  if (!change.origin.note.empty()) trial.note = change.origin.note;
  trial.end = now + order.time;
  trial.isPlanned = false;
  for (const auto& setting : trial.settings) settings.erase(setting.first);
  for (const auto& setting : settings) trial.written.erase(setting.first);
  _preparedLines += SpellPending(order.name, trial.client);
  AppendOldSettings(settings, _preparedLines);
  trial.settings.merge(settings);
  _prepared.emplace(order.name, std::move(trial));
  _changed = order.name;
}

// Asks for no memory.
std::string TrialBook::Commit(uint64_t revision) noexcept {
  const auto changed = _prepared.find(_changed);
  if (changed != _prepared.end() && revision != 0) changed->second.revision = revision;
  while (!_prepared.empty()) {
    auto node = _prepared.extract(_prepared.begin());
    _trials.erase(node.key());
    _trials.insert(std::move(node));
  }
  std::string lines;
  lines.swap(_preparedLines);
  return lines;
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
  } else if (CountPending() >= _max) {
    throw Refusal(std::to_string(_max) + " trials are pending already");
  }
}

const Trial* TrialBook::Find(const std::string& name) const {
  const auto found = _trials.find(name);
  return found == _trials.end() ? nullptr : &found->second;
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

std::string TrialBook::Confirm(const std::string& name, const Client& client, Time now) {
  Forget(now);
  RequireTime(name, FindOwned(name, client), now);
  std::string lines = SpellEnd(name, NameOf(Trial::State::kConfirmed));
  End(_trials[name], Trial::State::kConfirmed, now);
  return lines;
}

StoreAmendment TrialBook::PlanRevert(const std::string& name, const core::IniFile& userSettings) {
  const auto trial = _trials.find(name);
  if (trial == _trials.end() || !IsPending(trial->second)) return {};
  StoreAmendment revert = MakeRevert(trial->second.settings, userSettings);
  trial->second.isPlanned = true;
  return revert;
}

std::string TrialBook::EndReverted(const std::string& name, Time now) {
  const auto trial = _trials.find(name);
  if (trial == _trials.end() || !trial->second.isPlanned) return "";
  std::string lines = SpellEnd(name, NameOf(Trial::State::kReverted));
  End(trial->second, Trial::State::kReverted, now);
  trial->second.revision = 0;
  return lines;
}

void TrialBook::End(Trial& trial, Trial::State state, Time now) const {
  trial.state = state;
  trial.end = now + kKeptAfterEnd;
  trial.settings.clear();
  trial.isPlanned = false;
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

const std::map<std::string, Trial>& TrialBook::GetTrials(Time now) {
  Forget(now);
  return _trials;
}

void TrialBook::Forget(Time now) {
  std::multimap<Time, std::string> ended;
  for (const auto& [name, trial] : _trials) {
    if (!IsPending(trial)) ended.emplace(trial.end, name);
  }
  for (auto next = ended.begin(); next != ended.end() && (ended.size() > kMaxEnded || next->first <= now);) {
    _trials.erase(next->second);
    next = ended.erase(next);
  }
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
  _trials[trial].settings.emplace(std::move(name), std::move(old));
}

void TrialBook::OnWritten(const std::string& trial, const SettingName& name) {
  _trials[trial].settings.erase(name);
}

void TrialBook::OnEnd(const std::string& trial, std::string_view) {
  _trials.erase(trial);
}

}  // namespace tavix::daemon
