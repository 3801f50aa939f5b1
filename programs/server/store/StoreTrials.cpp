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

const std::string* FindNow(const IniFile& user, const SettingName& name) {
  static const std::string none;
  const auto group = user.GetGroups().find(name.group);
  if (group == user.GetGroups().end()) return nullptr;
  if (!name.key) return group->second.empty() ? &none : nullptr;
  const auto key = group->second.find(*name.key);
  return key == group->second.end() ? nullptr : &key->second;
}

void AddSettings(const Trial& trial, const IniFile& user, IniFile::KeyMap& keys) {
  for (const auto& [name, old] : trial.settings) {
    const std::string text = SpellSetting(name);
    if (old) keys["was " + text] = *old;
    if (const std::string* now = FindNow(user, name)) keys["is " + text] = *now;
  }
  if (trial.state != Trial::State::kReverted) return;
  for (const SettingName& name : trial.written) keys["kept " + SpellSetting(name)];
}

IniFile::KeyMap DescribeTrial(const Trial& trial, const IniFile& user, Trial::Time now) {
  IniFile::KeyMap keys;
  keys["state"] = NameOf(trial.state);
  keys["by"] = SpellClient(trial.client);
  if (!trial.note.empty()) keys["note"] = trial.note;
  if (trial.revision != 0) keys["revision"] = std::to_string(trial.revision);
  if (trial.state == Trial::State::kPending) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(trial.end - now).count();
    keys["seconds"] = std::to_string(left > 0 ? left : 0);
  }
  AddSettings(trial, user, keys);
  return keys;
}

}  // namespace

// With the store locked: no change is half-way between the book's two steps.
StoreTrials::Ticket StoreTrials::Confirm(const std::string& name, const Client& client) {
  Ticket ticket = 0;
  _manager.ReadUserSettings(
      [&](const IniFile&) { ticket = _persister.SaveTrial([&] { _trials.Confirm(name, client); }); });
  return ticket;
}

StoreTrials::Ticket StoreTrials::Revert(const std::string& name, const ChangeOrigin& origin) {
  if (!origin.trial.empty()) throw RefusedChange(RefusedChange::Reason::kTrial, "a revert can't be put on trial");
  ChangeOrigin revert = origin;
  revert.trial = name;
  revert.isRevert = true;
  return RevertOne(name, revert);
}

// What others write meanwhile makes the plan outdated, and is the trial's no longer.
StoreTrials::Ticket StoreTrials::RevertOne(const std::string& name, const ChangeOrigin& origin) {
  const osa::PlainMutexLock lock(_mutex);
  for (int round = 0; round < kMaxRounds; ++round) {
    Ticket ticket = 0;
    bool isEnded = false;
    StoreAmendment revert;
    _manager.ReadUserSettings([&](const IniFile& user) {
      _trials.RequireRevertible(name, origin.client);
      revert = _trials.PlanRevert(name, user);
      if (IsNothing(revert)) ticket = _persister.SaveTrial([&] { isEnded = _trials.EndReverted(name); });
    });
    if (isEnded) return ticket;
    try {
      if (_manager.Amend(revert, origin, ticket)) return ticket;
      throw osa::Exception("Trial '%s' can't be reverted: its settings exclude one another", name.c_str());
    } catch (const TrialBook::OutdatedRevert&) {
      continue;
    }
  }
  throw osa::Exception("Trial '%s' can't be reverted: others change its settings all the time", name.c_str());
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
    const std::vector<std::string> pending = _trials.FindPending();
    if (std::count(pending.begin(), pending.end(), name) == 0) return true;  // somebody else has ended it
    Log()->Error("Trial '%s' is not reverted yet: %s", name.c_str(), exception.what());
    return false;
  }
  return true;
}

void StoreTrials::Describe(const std::string& name, IniFile& answer) {
  _manager.ReadUserSettings([&](const IniFile& user) {
    for (const auto& trial : _trials.GetTrials(name))
      answer[trial.first] = DescribeTrial(trial.second, user, _trials.GetTime());
  });
  if (!name.empty() && answer.IsEmpty())
    throw RefusedChange(RefusedChange::Reason::kTrial, "no trial is named '" + name + "'");
}

}  // namespace tavix::daemon
