#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "programs/server/persistence/FileSystem.h"

namespace tavix::test {

// Files in memory. Everything that is done to them is recorded, and fails when that is asked for.
//
// Threads: any. The observer runs on the thread that does the operation, which holds nothing of this.
class MemoryFiles : public daemon::FileSystem {
 public:
  struct Operation {
    enum class Kind {
      kCreate,
      kOpen,
      kReserve,
      kWrite,
      kSync,
      kSetTime,
      kRename,
      kLink,
      kRemove,
      kSyncDirectory,
      kTruncate
    };

    Kind kind = Kind::kCreate;
    std::string path;  // of a file: the one that it was created or opened with
    std::string to;
    size_t file = 0;  // the number of the file that is created or changed
    uint64_t offset = 0;
    std::string bytes;
    int64_t time = 0;
  };
  using Observer = std::function<void(const Operation&)>;
  using Image = std::map<std::string, daemon::FileContent>;

  // image: what is there at first, its files numbered from 0 in that order.
  explicit MemoryFiles(const Image& image = {});

  std::unique_ptr<daemon::File> Create(const std::string& path) override;
  std::unique_ptr<daemon::File> Open(const std::string& path) override;
  daemon::FileContent Read(const std::string& path) override;
  daemon::FileContent ReadPieces(const std::string& path, const OnPiece& onPiece) override;  // a line each
  std::string ReadPart(const std::string& path, uint64_t offset, size_t bytes) override;
  void Rename(const std::string& from, const std::string& to) override;
  void Link(const std::string& from, const std::string& to) override;
  void Remove(const std::string& path) override;
  bool Exists(const std::string& path) override;
  std::vector<std::string> FindNames(const std::string& begin) override;
  void Sync(const std::string& path) override;
  void SyncDirectoryOf(const std::string& path) override;

  void Put(const std::string& path, const std::string& bytes);
  std::string Get(const std::string& path) const;
  std::vector<std::string> GetNames() const;
  Image GetImage() const;

  size_t CountOperations() const;
  std::vector<Operation> GetOperations() const;

  // Reading that path fails so many times, as errno has it.
  void FailReads(const std::string& path, int error, size_t times);

  // All files together have room for so many bytes, in blocks, and what is more fails as on a full disk. A file that is
  // open takes room until it is closed.
  void LimitRoom(size_t bytes);

  // Fails the operation that comes after so many others, or all from there on, with "No space left on device". A write
  // that fails gets half of its bytes through.
  void FailAfter(size_t operations, bool forEver);
  void FailNoMore();

  // Is called before each operation, after those that were added earlier.
  void AddObserver(Observer observer);

 private:
  class OpenFile;

  struct Content {
    std::string bytes;
    int64_t time = 0;
    size_t reserved = 0;
    std::weak_ptr<const bool> isOpen;  // shared by those who have opened it
  };

  struct FailingRead {
    int error = 0;
    size_t times = 0;
  };

  template <class Effect>
  void Do(Operation operation, Effect effect);
  void Write(size_t file, uint64_t offset, std::string_view bytes);
  std::shared_ptr<const bool> NoteOpen(size_t file);
  size_t CountRoom() const;
  bool HasRoomFor(size_t file, uint64_t bytes) const;

  mutable std::mutex _mutex;  // guards what follows
  std::vector<Content> _files;
  std::map<std::string, size_t> _names;
  std::vector<Operation> _operations;
  std::vector<Observer> _observers;
  std::map<std::string, FailingRead> _failingReads;
  size_t _room = SIZE_MAX;
  size_t _untilFailure = 0;
  bool _fails = false;
  bool _failsForEver = false;
};

}  // namespace tavix::test
