#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "programs/server/store/StoreTrials.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

// A store as the daemon has it: what was pending when the one before ended is reverted first.
class TrialStore {
 public:
  explicit TrialStore(daemon::FileSystem& files, size_t historyBytes = 0, daemon::Durability durability = kAlways)
      : _store(files, durability, "[D]\nx=default\n", std::chrono::hours(1), historyBytes, &_trials),
        _ends(_store.GetManager(), _store.GetPersister(), _trials) {
    _ends.RevertAll();
  }

  static constexpr settings::server::ClientIdentity kClient{settings::server::ClientIdentity::Connection::kUnix, 1000,
                                                            100, 812};

  void Try(const std::string& trial, const std::string& settings) {
    settings::server::ChangeTicket ticket = 0;
    _store.GetManager().MergeSettings(DocumentOf(settings), 0,
                                      settings::server::ChangeOrigin{kClient, "merge", {}, trial}, ticket);
  }

  void TryToOverwrite(const std::string& trial, const std::string& group) {
    settings::server::ChangeTicket ticket = 0;
    _store.GetManager().OverwriteSettings({group}, core::IniFile(),
                                          settings::server::ChangeOrigin{kClient, "overwrite", {}, trial}, ticket);
  }

  void Merge(const std::string& settings) { _store.Merge(settings); }
  void Confirm(const std::string& name) { AwaitDurable(_store.GetGate(), _ends.Confirm(name, kClient)); }
  void Revert(const std::string& name) { _ends.Revert(name, settings::server::ChangeOrigin{kClient, "revert", {}}); }
  void AwaitDurable() { _store.AwaitDurable(); }
  using Gate = daemon::DurabilityGate;
  static void AwaitDurable(Gate& gate, Gate::Ticket ticket) { test::AwaitDurable(gate, ticket); }

  // As an ordered end.
  bool Finish() {
    _ends.RevertAll();
    return _store.Finish();
  }
  void Crash() { _store.Crash(); }

  // Returns when what is on trial stands in the file of its own, and a journal without it has taken the place of the
  // one that had it.
  void AwaitTrialsInFile(const MemoryFiles& files) {
    const std::string path = kUserFile;
    ASSERT_TRUE(Eventually([&] {
      Merge("[Large]\nx=" + std::to_string(files.CountOperations()) + "\n");
      AwaitDurable();
      return !files.Get(path + ".trials").empty() && files.Get(path + ".journal").find("#t") == std::string::npos;
    }));
  }

  PersistedStore& GetStore() { return _store; }
  daemon::SharedTrials& GetTrials() { return _trials; }

  std::string GetUser() {
    std::string text;
    _store.GetManager().ReadUserSettings([&](const settings::server::LayerView& user) { text = TextOf(user); });
    return text;
  }

  std::string GetState(const std::string& name) {
    core::IniFile answer;
    _ends.Describe("", answer);
    return answer.GetValueOrDefault(name, "state");
  }

  // More than a journal has before a snapshot is made.
  void MakeSnapshotDue() { Merge("[Large]\nx=" + std::string(kMinJournal + 1000, 'x') + "\n"); }

 private:
  daemon::SharedTrials _trials{16};
  PersistedStore _store;
  daemon::StoreTrials _ends;
};

// Empty, or what is wrong with the history: each entry leads back to the settings before it, down to a state that was
// current. states: by their revisions. shown: the last revision that anybody was shown; none up to it may be lost.
inline std::string FindHistoryFault(TrialStore& store, const std::map<uint64_t, std::string>& states, uint64_t shown) {
  core::IniFile settings = DocumentOf(store.GetUser());
  const daemon::KeptHistory& history = *store.GetStore().GetHistory();
  const daemon::HistoryParts::Range range = history.GetRange();
  const std::string missing = "entry " + std::to_string(range.oldest) + " is missing";
  if (range.oldest != 0 && range.oldest <= shown) return missing;
  uint64_t revision = range.last;
  for (uint64_t below = daemon::KeptHistory::kNewest; revision > range.oldest;) {
    const daemon::KeptHistory::Block block = history.ReadBelow(below, SIZE_MAX, SIZE_MAX);
    if (block.isEnd) return "entry " + std::to_string(revision) + " is missing";
    for (const daemon::KeptHistory::Item& item : block.items) {
      if (revision == range.oldest) break;
      if (item.entry.revision != revision--) return "entry " + std::to_string(revision + 1) + " is missing";
      Undo(item.entry, settings);
    }
    below = block.next;
  }
  const auto state = states.find(range.oldest);
  if (state == states.end()) return missing;
  return state->second == TextOf(settings) ? "" : "entries down to " + std::to_string(range.oldest) + " lead elsewhere";
}

}  // namespace tavix::test
