#include "tests/support/RecordingCallback.h"

#include <ostream>
#include <utility>

#include "tests/support/DocumentText.h"

namespace tavix::test {

std::ostream& operator<<(std::ostream& out, const Change& change) {
  out << '{';
  for (const std::string& group : change.groups) out << ' ' << group;
  return out << " } with\n" << change.settings;
}

RecordingCallback::RecordingCallback(std::function<void()> then) : _then(std::move(then)) {}

void RecordingCallback::OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _changes.push_back(Change{changedGroups, TextOf(settings)});
  }
  if (_then) _then();
}

std::vector<Change> RecordingCallback::GetChanges() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _changes;
}

std::vector<Change> RecordingCallback::TakeChanges() {
  std::lock_guard<std::mutex> lock(_mutex);
  return std::exchange(_changes, {});
}

}  // namespace tavix::test
