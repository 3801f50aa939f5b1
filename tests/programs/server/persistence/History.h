#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "programs/server/persistence/DurabilityGate.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

// The states that a user layer went through, in their order, and from when on somebody could have been shown each: time
// is counted in operations on the files.
//
// Threads: any.
class History {
 public:
  // files: outlive the history.
  explicit History(const MemoryFiles& files) : _files(files) {}

  // The layer became that with the change of this ticket, which was begun at that time. The gate outlives the history's
  // use of it.
  void Add(const std::string& state, size_t begun, daemon::DurabilityGate& gate,
           daemon::DurabilityGate::Ticket ticket) {
    size_t number = 0;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      number = _states.size();
      _states.push_back({begun, kNever});
      _numbers[state].push_back(number);
    }
    if (!gate.Await(ticket, std::make_shared<ShownOutput>(*this, number))) Show(number);
  }

  // The layer is loaded, and everybody may see it.
  void AddLoaded(const std::string& state, size_t begun) {
    daemon::DurabilityGate gate(false);
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _lives = true;
    }
    Add(state, begun, gate, 0);
  }

  // The program crashes: until it is loaded again, nobody is shown anything.
  void EndLife() {
    std::lock_guard<std::mutex> lock(_mutex);
    _lives = false;
  }

  // Empty, or what is wrong with finding that state after a power cut at that time.
  std::string FindFault(const std::string& state, size_t time) const {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto numbers = _numbers.find(state);
    if (numbers == _numbers.end()) return "was never current";
    size_t newest = 0;
    for (size_t number : numbers->second) {
      if (_states[number].begun <= time) newest = number;
    }
    for (size_t number = newest + 1; number < _states.size(); ++number) {
      if (_states[number].shown <= time)
        return "is number " + std::to_string(newest) + ", but " + std::to_string(number) + " was shown already";
    }
    return "";
  }

 private:
  static constexpr size_t kNever = std::numeric_limits<size_t>::max();

  struct State {
    size_t begun;
    size_t shown;
  };

  class ShownOutput : public daemon::IHeldOutput {
   public:
    ShownOutput(History& history, size_t number) : _history(history), _number(number) {}
    void OnDurable() override { _history.Show(_number); }

   private:
    History& _history;
    const size_t _number;
  };

  void Show(size_t number) {
    const size_t now = _files.CountOperations();
    std::lock_guard<std::mutex> lock(_mutex);
    if (_lives) _states[number].shown = now;
  }

  const MemoryFiles& _files;
  mutable std::mutex _mutex;  // guards what follows
  bool _lives = false;
  std::vector<State> _states;
  std::unordered_map<std::string, std::vector<size_t>> _numbers;  // of each state's text
};

}  // namespace tavix::test
