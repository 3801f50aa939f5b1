#include "tavix/settings/server/ChangeRecorder.h"

#include <algorithm>
#include <new>
#include <utility>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

void ChangeRecorders::Note(const std::string& group) noexcept {
  if (!AreActive()) return;
  ForEach([&](ChangeRecorder& recorder) { recorder._names.push_back(group); });
}

void ChangeRecorders::Note(const std::set<std::string>& groups) noexcept {
  if (!AreActive()) return;
  ForEach(
      [&](ChangeRecorder& recorder) { recorder._names.insert(recorder._names.end(), groups.begin(), groups.end()); });
}

void ChangeRecorders::Note(const core::IniFile& groups) noexcept {
  if (!AreActive()) return;
  ForEach([&](ChangeRecorder& recorder) {
    for (const auto& group : groups) recorder._names.push_back(group.first);
  });
}

void ChangeRecorders::ForEach(const std::function<void(ChangeRecorder&)>& note) noexcept {
  osa::PlainMutexLock lock(_mutex);
  for (ChangeRecorder* recorder : _recorders) {
    try {
      note(*recorder);
    } catch (const std::bad_alloc&) {
      recorder->_missesSome = true;
    }
  }
}

void ChangeRecorders::Add(ChangeRecorder* recorder) {
  osa::PlainMutexLock lock(_mutex);
  _recorders.push_back(recorder);
  _count.store(_recorders.size(), std::memory_order_release);
}

void ChangeRecorders::Remove(ChangeRecorder* recorder) noexcept {
  osa::PlainMutexLock lock(_mutex);
  _recorders.erase(std::remove(_recorders.begin(), _recorders.end(), recorder), _recorders.end());
  _count.store(_recorders.size(), std::memory_order_release);
}

ChangeRecorder::ChangeRecorder(ChangeRecorders& recorders) : _recorders(recorders) {
  _recorders.Add(this);
}

ChangeRecorder::~ChangeRecorder() {
  _recorders.Remove(this);
}

std::set<std::string> ChangeRecorder::Take() {
  std::vector<std::string> names;
  {
    osa::PlainMutexLock lock(_recorders._mutex);
    if (_missesSome) throw std::bad_alloc();
    names.swap(_names);
  }
  std::sort(names.begin(), names.end());
  return {std::make_move_iterator(names.begin()), std::make_move_iterator(names.end())};
}

}  // namespace tavix::settings::server
