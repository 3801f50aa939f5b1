#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <string>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

namespace tavix::test {

inline bool IsSnapshot(const MemoryFiles::Operation& operation) {
  return operation.kind == MemoryFiles::Operation::Kind::kRename && operation.to == kUserFile;
}

inline size_t CountSnapshots(const MemoryFiles& files) {
  const auto operations = files.GetOperations();
  return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), IsSnapshot));
}

// What a daemon would find that is started on these files.
inline std::string Load(const MemoryFiles& files) {
  MemoryFiles image(files.GetImage());
  PersistedStore store(image, kAlways);
  return UserSettingsOf(store.GetManager());
}

inline bool IsHeld(PersistedStore& store, const std::string& group) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNameOrPattern(group);
  return !store.GetGate().IsDurable(store.GetGate().FindLast(&matcher));
}

// Stops the first operation that is of that kind, and for that path, until it may go on.
class Stop {
 public:
  Stop(MemoryFiles& files, MemoryFiles::Operation::Kind kind, const std::string& path) {
    files.AddObserver([stop = _stop, kind, path](const auto& operation) {
      if (operation.kind != kind || operation.path != path || stop->isReached.exchange(true)) return;
      stop->reached.set_value();
      stop->mayGoOn.get_future().wait();
    });
  }

  ~Stop() {
    if (!_wentOn) GoOn();
  }

  void Await() { _stop->reached.get_future().wait(); }

  void GoOn() {
    _wentOn = true;
    _stop->mayGoOn.set_value();
  }

 private:
  struct State {
    std::atomic<bool> isReached{false};
    std::promise<void> reached;
    std::promise<void> mayGoOn;
  };

  const std::shared_ptr<State> _stop = std::make_shared<State>();
  bool _wentOn = false;
};

// Files of a store that was saved, and ended as it should.
class Persister : public testing::Test {
 protected:
  // Whether that is found after each of many power cuts that may happen now.
  testing::AssertionResult PowerCutsLeave(const std::string& settings) const {
    PowerCuts cuts(_image, _files.GetOperations(), 1);
    while (cuts.Advance()) continue;
    for (int i = 0; i < 100; ++i) {
      const std::string found = Load(MemoryFiles(cuts.Cut()));
      if (found.find(settings) == std::string::npos) return testing::AssertionFailure() << found.substr(0, 200);
    }
    return testing::AssertionSuccess();
  }

  static MemoryFiles::Image MakeImage() {
    MemoryFiles files;
    PersistedStore store(files, kAlways);
    store.Merge("[A]\nx=1\n");
    store.Finish();
    return files.GetImage();
  }

  const MemoryFiles::Image _image = MakeImage();
  MemoryFiles _files{_image};
};

}  // namespace tavix::test
