#pragma once

#include <functional>
#include <iosfwd>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tavix/settings/IChangeCallback.h"

namespace tavix::test {

// One call of a change callback.
struct Change {
  std::set<std::string> groups;
  std::string settings;  // as settings text

  bool operator==(const Change& other) const { return groups == other.groups && settings == other.settings; }
};

std::ostream& operator<<(std::ostream& out, const Change& change);

// Remembers the changes that it is told of.
//
// Threads: any.
class RecordingCallback : public settings::IChangeCallback {
 public:
  // then: what each call does once it is recorded; may throw.
  explicit RecordingCallback(std::function<void()> then = {});

  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) override;

  std::vector<Change> GetChanges() const;

  // The changes since the last call.
  std::vector<Change> TakeChanges();

 private:
  const std::function<void()> _then;
  mutable std::mutex _mutex;  // guards what follows
  std::vector<Change> _changes;
};

}  // namespace tavix::test
