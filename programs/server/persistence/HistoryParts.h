#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tavix::daemon {

// Where the entries of the history stand in FILE.history and FILE.history.1, in parts of some 32 KiB, and from which
// revision on none is missing. A plain value.
class HistoryParts {
 public:
  // Entries behind one another; an entry of more than kPartBytes is a part of its own.
  struct Part {
    uint64_t first = 0;  // its first revision
    bool isOld = false;  // of FILE.history.1
    uint64_t offset = 0;
    size_t bytes = 0;
    uint64_t generation = 0;  // of the files: they are others when that has changed
  };

  // All entries of revisions above "oldest" are there, up to "last". 0 and 0: there are none.
  struct Range {
    uint64_t oldest = 0;
    uint64_t last = 0;
  };

  static constexpr size_t kPartBytes = 32 * 1024;

  explicit HistoryParts(uint64_t generation = 0) : _generation(generation) {}

  // An entry of FILE.history, behind those before. One whose revision is not above theirs is left out.
  void Add(uint64_t revision, bool isGap, uint64_t offset, size_t bytes);

  // FILE.history becomes FILE.history.1; and that is removed.
  void Rotate();
  void DropOld();

  // The last part that has a revision below this one. Empty: there is none.
  std::optional<Part> FindBelow(uint64_t revision) const;

  Range GetRange() const { return _range; }
  uint64_t GetGeneration() const { return _generation; }

 private:
  uint64_t _generation;
  std::vector<Part> _old;
  std::vector<Part> _current;
  Range _range;
};

}  // namespace tavix::daemon
