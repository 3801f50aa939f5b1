#include "programs/server/store/StoreTrials.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "programs/server/trials/TrialText.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/StoreAmendment.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::ChangeOrigin;
using settings::server::ClientIdentity;
using settings::server::LayerView;
using settings::server::RefusedChange;
using settings::server::StoreAmendment;

namespace {

constexpr int kMaxRounds = 1000;  // as often as others may write to the trial's settings meanwhile

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Trials");
  return logger;
}

bool IsNothing(const StoreAmendment& revert) {
  return revert.set.IsEmpty() && revert.unset.IsEmpty() && revert.drop.IsEmpty();
}

IniFile::KeyMap DescribeState(const Trial& trial, Trial::Time now) {
  IniFile::KeyMap keys;
  keys["state"] = NameOf(trial.state);
  keys["by"] = SpellClient(trial.client);
  if (!trial.note.empty()) keys["note"] = trial.note;
  if (trial.revision != 0) keys["revision"] = std::to_string(trial.revision);
  if (trial.state == Trial::State::kPending) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(trial.end - now).count();
    keys["seconds"] = std::to_string(left > 0 ? left : 0);
  }
  for (const SettingName& name : trial.written) keys["kept " + SpellSetting(name)];
  return keys;
}

}  // namespace

// Others read and write between the parts. What "part" had is destroyed without a lock.
bool StoreTrials::ReadPart(const std::string& name, OldSettings& part, const Reader& read) {
  const OldSettings previous = std::move(part);
  const SettingName* const last = previous.empty() ? nullptr : &previous.rbegin()->first;
  _manager.ReadUserSettings([&](const LayerView& user) {
    part = _trials.GetSettings(name, last);
    read(user);
  });
  return !part.empty();
}

StoreAmendment StoreTrials::PlanRevert(const std::string& name) {
  StoreAmendment revert;
  OldSettings part;
  const auto plan = [&](const LayerView& user) {
    for (const auto& setting : part) AddToRevert(setting, user, revert);
  };
  _trials.BeginPlan(name);
  while (ReadPart(name, part, plan)) continue;
  return revert;
}

// With the store locked: no change is half-way between the book's two steps.
StoreTrials::Ticket StoreTrials::Confirm(const std::string& name, const Client& client) {
  Ticket ticket = 0;
  _manager.ReadUserSettings([&](const LayerView&) { ticket = _persister.ConfirmTrial(name, client); });
  _trials.DropReleased();
  return ticket;
}

StoreTrials::Ticket StoreTrials::Revert(const std::string& name, const ChangeOrigin& origin) {
  if (!origin.trial.empty()) throw RefusedChange(RefusedChange::Reason::kTrial, "a revert can't be put on trial");
  ChangeOrigin revert = origin;
  revert.trial = name;
  revert.isRevert = true;
  return RevertOne(name, revert);
}

// An outdated plan leaves no record.
StoreTrials::Ticket StoreTrials::End(const std::string& name) {
  const auto end = [&] {
    if (!_trials.EndReverted(name)) throw TrialBook::OutdatedRevert();
  };
  Ticket ticket = 0;
  _manager.ReadUserSettings([&](const LayerView&) { ticket = _persister.SaveTrial(end); });
  return ticket;
}

StoreTrials::Ticket StoreTrials::Amend(const std::string& name, const StoreAmendment& revert,
                                       const ChangeOrigin& origin) {
  Ticket ticket = 0;
  if (_manager.Amend(revert, origin, ticket)) return ticket;
  throw osa::Exception("Trial '%s' can't be reverted: its settings exclude one another", name.c_str());
}

// What others write meanwhile makes the plan outdated, and is the trial's no longer.
StoreTrials::Ticket StoreTrials::RevertOne(const std::string& name, const ChangeOrigin& origin) {
  const osa::PlainMutexLock lock(_mutex);
  for (int round = 0; round < kMaxRounds; ++round) {
    _trials.RequireRevertible(name, origin.client);
    const StoreAmendment revert = PlanRevert(name);
    try {
      const Ticket ticket = IsNothing(revert) ? End(name) : Amend(name, revert, origin);
      _trials.DropReleased();
      return ticket;
    } catch (const TrialBook::OutdatedRevert&) {
      continue;
    }
  }
  throw osa::Exception("Trial '%s' can't be reverted: others change its settings all the time", name.c_str());
}

bool StoreTrials::IsPending(const std::string& name) {
  const std::optional<Trial> trial = _trials.FindTrial(name);
  return trial && trial->state == Trial::State::kPending;
}

// Again when it ends meanwhile: then it has no settings any more.
void StoreTrials::DescribeTrial(const std::string& name, IniFile& answer) {
  bool wasPending = false;
  do {
    const std::optional<Trial> trial = _trials.FindTrial(name);
    if (!trial) return answer.RemoveGroup(name);
    wasPending = trial->state == Trial::State::kPending;
    answer[name] = DescribeState(*trial, _trials.GetTime());
    if (wasPending) DescribeSettings(name, answer[name]);
  } while (wasPending && !IsPending(name));
}

void StoreTrials::DescribeSettings(const std::string& name, IniFile::KeyMap& keys) {
  OldSettings part;
  OldSettings now;
  const auto copy = [&](const LayerView& user) {
    for (const auto& setting : part) {
      const std::string* const value = FindNow(setting.first, user);
      if (value) now.emplace_hint(now.end(), setting.first, *value);
    }
  };
  while (ReadPart(name, part, copy)) {
    for (const auto& [setting, old] : part) {
      if (old) keys["was " + SpellSetting(setting)] = *old;
    }
    for (const auto& [setting, value] : now) keys["is " + SpellSetting(setting)] = *value;
    now.clear();
  }
}

bool StoreTrials::RevertDue() noexcept {
  return RevertEach(&SharedTrials::FindDue, "nobody confirmed it in time");
}

bool StoreTrials::RevertAll() noexcept {
  return RevertEach(&SharedTrials::FindPending, "the daemon starts or ends");
}

// One that fails keeps none of the others on trial.
bool StoreTrials::RevertEach(FindNames findNames, const char* reason) noexcept {
  bool isDone = true;
  try {
    for (const std::string& name : (_trials.*findNames)()) isDone &= TryToRevert(name, reason);
  } catch (const std::exception&) {
    isDone = false;
  }
  if (!isDone) _trials.RetryLater();
  return isDone;
}

bool StoreTrials::TryToRevert(const std::string& name, const char* reason) {
  ChangeOrigin origin{{ClientIdentity::Connection::kDaemon}, "revert", {}, name};
  origin.isRevert = true;
  try {
    RevertOne(name, origin);
    Log()->Notice("Trial '%s' is reverted: %s", name.c_str(), reason);
  } catch (const std::exception& exception) {
    if (!IsPending(name)) return true;  // somebody else has ended it
    Log()->Error("Trial '%s' is not reverted yet: %s", name.c_str(), exception.what());
    return false;
  }
  return true;
}

void StoreTrials::Describe(const std::string& name, IniFile& answer) {
  for (const std::string& known : _trials.FindKnown()) {
    if (name.empty() || name == known) DescribeTrial(known, answer);
  }
  if (!name.empty() && answer.IsEmpty())
    throw RefusedChange(RefusedChange::Reason::kTrial, "no trial is named '" + name + "'");
}

}  // namespace tavix::daemon
