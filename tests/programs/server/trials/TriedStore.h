#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <utility>

#include "programs/server/trials/TrialBook.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tavix/settings/server/StoreAmendment.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"

namespace tavix::test {

// A store in memory with a book of trials, whose clock stands still. The book's lines are kept as a journal keeps them.
class TriedStore : private MemoryPersister {
 public:
  using Client = settings::server::ClientIdentity;

  static constexpr size_t kMaxTrials = 3;

  explicit TriedStore(const std::string& user = "", const std::string& defaults = "", size_t maxBytes = 0)
      : MemoryPersister({defaults}, user), book(kMaxTrials, maxBytes) {}

  static Client ClientOf(uid_t user) { return {Client::Connection::kUnix, user, 100, 812}; }
  static Client Tcp() { return {Client::Connection::kTcp}; }

  // trial: as a client sends it. Valid until the next call.
  settings::server::ChangeOrigin Origin(const std::string& trial) {
    _trial = trial;
    return {client, "merge", {}, _trial};
  }

  void Try(const std::string& trial, const std::string& settings) {
    manager.MergeSettings(DocumentOf(settings), 0, Origin(trial), ticket);
  }
  void TryToOverwrite(const std::string& trial, const std::set<std::string>& groups, const std::string& settings) {
    manager.OverwriteSettings(groups, DocumentOf(settings), Origin(trial), ticket);
  }
  void TryToRestore(const std::string& trial, const std::string& pattern) {
    settings::common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern(pattern);
    manager.RestoreToDefaults(matcher, Origin(trial), ticket);
  }
  void TryToAmend(const std::string& trial, const settings::Amendment& amendment) {
    static_cast<void>(manager.Amend(amendment, Origin(trial), ticket));
  }

  // Returns why it was refused; empty: it was not.
  std::string TryToTry(const std::string& trial, const std::string& settings) {
    return ReasonOf([&] { Try(trial, settings); });
  }
  std::string TryToTry(const std::string& trial, const std::string& settings, const Client& other) {
    const Client own = std::exchange(client, other);
    const std::string reason = TryToTry(trial, settings);
    client = own;
    return reason;
  }
  std::string TryToConfirm(const std::string& name, const Client& other) {
    return ReasonOf([&] { Confirm(name, other); });
  }

  void Merge(const std::string& settings) { manager.MergeSettings(DocumentOf(settings), 0); }
  void Confirm(const std::string& name) { Confirm(name, client); }
  void Confirm(const std::string& name, const Client& other) {
    lines += book.SpellConfirmation(name, other, now);
    book.Confirm(name, now);
  }

  settings::server::StoreAmendment PlanRevert(const std::string& name) {
    settings::server::StoreAmendment revert;
    book.BeginPlan(name);
    const daemon::OldSettings settings = GetSettings(name);
    manager.ReadUserSettings([&](const settings::server::LayerView& user) {
      for (const auto& setting : settings) AddToRevert(setting, user, revert);
    });
    return revert;
  }
  daemon::OldSettings GetSettings(const std::string& name) const {
    daemon::OldSettings all;
    daemon::OldSettings part = book.GetSettings(name, nullptr);
    for (; !part.empty(); part = book.GetSettings(name, &all.rbegin()->first)) all.insert(part.begin(), part.end());
    return all;
  }
  void CarryOutRevert(const std::string& name, const settings::server::StoreAmendment& revert) {
    settings::server::ChangeOrigin origin{client, "revert", {}, name};
    origin.isRevert = true;
    EXPECT_TRUE(manager.Amend(revert, origin, ticket));
  }
  void Revert(const std::string& name) { CarryOutRevert(name, PlanRevert(name)); }

  std::string GetUser() const {
    std::string text;
    manager.ReadUserSettings([&](const settings::server::LayerView& user) { text = TextOf(user); });
    return text;
  }
  std::string GetSeen() const {
    core::IniFile seen;
    manager.GetGroups(seen, "*");
    return TextOf(seen);
  }
  std::string GetState(const std::string& name) {
    book.FindKnown(now);
    const auto trial = book.FindTrial(name);
    return trial ? daemon::NameOf(trial->state) : "none";
  }

  // The book after a restart from the lines so far.
  daemon::TrialBook Restart() const {
    daemon::TrialBook restarted(kMaxTrials);
    restarted.Load(lines);
    return restarted;
  }

  daemon::TrialBook book;
  daemon::TrialBook::Time now{std::chrono::hours(1)};
  Client client = ClientOf(1000);
  settings::server::ChangeTicket ticket = 0;
  std::string lines;

 private:
  template <class Action>
  static std::string ReasonOf(Action action) {
    try {
      action();
    } catch (const settings::server::RefusedChange& refusal) {
      return refusal.what();
    }
    return "";
  }

  void PrepareChange(const settings::server::PlannedChange& change) override { book.Prepare(change, now); }

  settings::server::ChangeTicket SaveChange(const SavedChange& change) override {
    lines += book.Commit(++_revision);
    return MemoryPersister::SaveChange(change);
  }

  std::string _trial;
  uint64_t _revision = 0;

 public:
  settings::server::SettingsManager manager{this, nullptr, nullptr, false};  // last: it is loaded through the above
};

}  // namespace tavix::test
