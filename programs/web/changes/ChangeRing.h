#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "programs/web/changes/Change.h"

namespace tavix::web {

// The last changes, each with a number: 4,096 of them or 4 MiB. Numbers count within one time of a subscription, whose
// name makes the events' ids differ from those of all other times.
//
// Threads: one, the loop's.
class ChangeRing {
 public:
  static constexpr size_t kMaxChanges = 4096;
  static constexpr size_t kMaxBytes = 4 * size_t{1024} * 1024;

  // A change, or several of one group as one.
  struct Item {
    uint64_t firstNumber;
    uint64_t number;      // of the last
    ChangePointer first;  // has what was before
    ChangePointer change;
  };

  // Forgets all: a subscription begins. name: without a '-'.
  void Begin(const std::string& name);

  void Add(ChangePointer change);

  // The number of the last change; the first one is 1.
  uint64_t GetLast() const { return _first + _changes.size() - 1; }

  // Whether all changes behind that number are kept.
  bool IsKept(uint64_t number) const { return number + 1 >= _first && number <= GetLast(); }

  // Those behind that number, which is kept, in the order of the last change of each group. More than one of a group
  // become one: its values before the first, and behind the last.
  std::vector<Item> FindBehind(uint64_t number) const;

  std::string FormatId(uint64_t number) const { return _name + "-" + std::to_string(number); }

  // The number of an id; nothing when it is of another time, or nothing behind it is kept.
  std::optional<uint64_t> ParseId(const std::string& id) const;

 private:
  std::string _name;
  std::deque<ChangePointer> _changes;
  uint64_t _first = 1;  // the number of the first one that is kept
  size_t _bytes = 0;
};

}  // namespace tavix::web
