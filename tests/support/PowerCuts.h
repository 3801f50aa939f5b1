#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/MemoryFiles.h"

namespace tavix::test {

// Goes through what was done to files, one operation after the other, and makes the files as they may be found when the
// power goes there:
//
//     bytes written, not synced   there, or not, or zeros, or in part (a byte, 512 or 4096 bytes at a time), later
//                                 writes without earlier ones
//     bytes cut off, not synced   cut off, or not
//     names made, not synced      there up to any of them, in their order, as a journaling file system keeps them
//     modification times          there or not, whatever was synced
class PowerCuts {
 public:
  // image: the files before the first operation, all of it on the disk.
  PowerCuts(const MemoryFiles::Image& image, std::vector<MemoryFiles::Operation> operations, unsigned int seed);

  // Takes one more operation in. False at the end.
  bool Advance();

  // How many were taken in.
  size_t GetPosition() const { return _position; }

  // One of the many possible images.
  MemoryFiles::Image Cut();

  // What a crash of nothing but the program leaves.
  MemoryFiles::Image Keep() const;

 private:
  using Operation = MemoryFiles::Operation;
  using Names = std::map<std::string, size_t>;

  struct DiskFile {
    std::string synced;
    std::vector<const Operation*> unsynced;
    int64_t time = 0;
  };

  static void ApplyName(Names& names, const Operation& operation);
  static void Apply(std::string& bytes, const Operation& change);
  static void Write(std::string& bytes, uint64_t offset, std::string_view part);
  std::string CutFile(const DiskFile& file);
  void WriteSome(std::string& bytes, const Operation& write);
  size_t Below(size_t limit) { return _random() % limit; }

  const std::vector<Operation> _operations;
  std::mt19937 _random;
  size_t _position = 0;
  std::map<size_t, DiskFile> _files;
  Names _names;                                  // synced
  std::vector<const Operation*> _unsyncedNames;  // in their order
};

}  // namespace tavix::test
