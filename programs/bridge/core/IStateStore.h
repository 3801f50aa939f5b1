#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::bridge {

// What is kept over a restart, by kind. The numbers are stored.
enum class StateKind : int {
  kMeta = 0,      // of the bridge as a whole
  kAgreed = 1,    // what both ends of a group held last
  kIntent = 2,    // a change that was about to be made
  kReported = 3,  // what was last published of a group
  kDocument = 4,  // the last version of a document
  kGoverned = 5,  // the keys of a group that documents govern
};

// One thing that is kept, or no longer kept. A plain value.
struct StateRecord {
  StateKind kind = StateKind::kMeta;
  std::string key;
  std::optional<core::IniFile> value;  // nothing: it goes
};

// What a bridge keeps on the disk.
//
// Threads: one.
// Errors:  osa::Exception; nothing of the commit is kept then.
class IStateStore {
 public:
  using Take = std::function<void(const std::string& key, const core::IniFile& value)>;

  virtual ~IStateStore() = default;

  virtual void Load(StateKind kind, const Take& take) = 0;

  // All of it is on the disk when this returns, or none of it.
  virtual void Commit(const std::vector<StateRecord>& records) = 0;
};

}  // namespace tavix::bridge
