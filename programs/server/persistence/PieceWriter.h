#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "programs/server/persistence/FileSystem.h"

namespace tavix::daemon {

// Writes a long text to a file piece by piece, of which each is brought to the disk while the next one is made.
//
// Threads: one.
// Errors:  those of the file.
class PieceWriter {
 public:
  enum class Pace {
    kFast,    // somebody waits for the text to be on the disk
    kGentle,  // the disk gets a piece at a time, so that syncs of other files never wait behind all of it
  };

  // file: outlives the writer. offset: where the text begins.
  PieceWriter(File& file, uint64_t offset, Pace pace, size_t bytesOfAPiece = 1024 * 1024)
      : _file(file), _offset(offset), _pace(pace), _bytesOfAPiece(bytesOfAPiece) {}

  // Keeps up to a piece.
  void Write(std::string_view text);

  // Writes what is kept.
  void Flush();

 private:
  File& _file;
  uint64_t _offset;  // of what is kept
  const Pace _pace;
  const size_t _bytesOfAPiece;
  std::string _kept;
};

}  // namespace tavix::daemon
