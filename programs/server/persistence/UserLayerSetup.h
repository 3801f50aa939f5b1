#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>

#include "programs/server/persistence/Durability.h"
#include "programs/server/persistence/FileSystem.h"
#include "programs/server/persistence/SyncGather.h"

namespace tavix::daemon {

class SharedTrials;

// Where the user layer is kept, and what is called when something becomes of it. The observers are called from any
// thread, which may hold the store's lock and the persister's: they must not take either, nor wait.
struct UserLayerSetup {
  FileSystem& files;  // outlive the persister
  std::string path;   // of the snapshot; links are not followed
  Durability durability;

  // A sync or a snapshot has succeeded or failed; bytes: the snapshot's, else 0.
  std::function<void(bool succeeded, size_t bytes)> onSave;

  // There are changes that the disk lacks, since that time in seconds since the epoch; 0: there are none any more. May
  // be empty. Never called with Durability::kNone.
  std::function<void(std::time_t since)> onUnsaved = {};

  // Why changes are not kept from now on; empty: they are again. Called before anybody is shown such a change, and asks
  // for no memory. May be empty.
  std::function<void(std::string_view reason)> onFailure = {};

  // A change of more bytes is not written by its writer, who holds the store's lock.
  size_t largeChange = 512 * 1024;

  // A write or a sync that takes longer is reported.
  std::chrono::milliseconds longDiskWork{5000};

  // With Durability::kAlways: how long a sync waits for more changes.
  SyncGather::Rule gather{};

  // In bytes: a journal makes a snapshot due once it is longer than this, and than the last snapshot.
  uint64_t minJournal = 256 * 1024;

  // What the history may take on the disk; 0: there is none.
  size_t historyBytes = 0;

  // Outlives the persister; null: nothing is put on trial.
  SharedTrials* trials = nullptr;
};

}  // namespace tavix::daemon
