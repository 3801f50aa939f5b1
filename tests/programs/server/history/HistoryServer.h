#pragma once

#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "programs/server/history/CheckpointWords.h"
#include "programs/server/history/ExtraWords.h"
#include "programs/server/history/HistoryWords.h"
#include "programs/server/history/RollbackWords.h"
#include "programs/server/persistence/Checkpoints.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/SavedHistory.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

// A store that keeps a history in memory files, and what handlers of connections need beside it.
struct HistoryServer {
  static constexpr size_t kMaxCheckpoints = 3;
  static constexpr size_t kMaxOldBytes = 1024 * 1024;

  // image: the files at first.
  explicit HistoryServer(const std::string& defaults = "", size_t historyBytes = kHistoryBytes,
                         const MemoryFiles::Image& image = {})
      : files(image),
        store(files, kAlways, defaults, std::chrono::hours(1), historyBytes),
        checkpoints(files, kUserFile, kMaxCheckpoints),
        words(*store.GetHistory()),
        checkpointWords(checkpoints, *store.GetHistory(), store.GetManager(), store.GetGate()),
        rollbackWords(store.GetManager(), *store.GetHistory(), checkpoints, store.GetGate(), kMaxOldBytes) {
    extraWords.Add(words);
    extraWords.Add(checkpointWords);
    extraWords.Add(rollbackWords);
    env.settingsManager = &store.GetManager();
    env.serializationManager = &serializers;
    env.extraCommands = &extraWords;
  }

  // The bytes that a handler of its own writes when its client sends "input" and hangs up. Without the lines that say
  // when a change was made.
  std::string Serve(const std::string& input) {
    std::istringstream in(input);
    std::ostringstream out;
    settings::server::ClientHandler(&env, &in, &out).Run();
    return WithoutTimes(out.str());
  }

  static std::string WithoutTimes(const std::string& text) {
    std::istringstream lines(text);
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("time=", 0) != 0) kept += line + "\n";
    }
    return kept;
  }

  MemoryFiles files;
  PersistedStore store;
  settings::server::SerializationManager serializers;
  settings::server::ServerEnv env;
  daemon::Checkpoints checkpoints;
  daemon::HistoryWords words;
  daemon::CheckpointWords checkpointWords;
  daemon::RollbackWords rollbackWords;
  daemon::ExtraWords extraWords;
};

}  // namespace tavix::test
