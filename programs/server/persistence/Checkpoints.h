#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "programs/server/persistence/FileSystem.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// Copies of the user settings under names that clients give, each a snapshot in FILE.checkpoint.NAME. One on its way is
// written beside its place, synced and renamed: after any failure, or a power cut, there is the old one or the new one,
// whole. What never was a checkpoint is neither replaced nor removed, even where it has such a name.
//
// Threads: any.
// Locks:   its own mutex, held while files are written and removed: no thread that serves clients calls this.
// Errors:  Refused with a sentence for the client; std::bad_alloc.
class Checkpoints {
 public:
  class Refused : public osa::Exception {
   public:
    explicit Refused(const std::string& message) : Exception(message) {}
  };

  struct Checkpoint {
    size_t bytes = 0;
    uint64_t revision = 0;   // of the last change that it holds
    int64_t time = 0;        // when it was made, in nanoseconds since the epoch
    std::string damage;      // why it is of no use; empty: it is whole
    core::IniFile settings;  // by Load alone
  };

  // files: outlive the object. max: 0: none are made. Removes what a crash left on its way.
  Checkpoints(FileSystem& files, const std::string& snapshotPath, size_t max);

  // Refuses what Save would, before a text is made for it.
  void RequireRoomFor(const std::string& name) const;

  // Write what comes before the settings; then Save the text, which it ends. Save replaces the checkpoint of that name;
  // the new one is on the disk when it returns.
  static void Begin(core::StringOstream& text, uint64_t revision);
  void Save(const std::string& name, core::StringOstream& text) TAVIX_EXCLUDES(_mutex);

  // By their names, damaged ones included.
  std::map<std::string, Checkpoint> List() const;

  // Not a damaged one.
  Checkpoint Load(const std::string& name) const;

  void Forget(const std::string& name) TAVIX_EXCLUDES(_mutex);

 private:
  std::string PathOf(const std::string& name) const { return _begin + name; }
  std::vector<std::string> FindNames() const;
  void Replace(const std::string& path, const std::string& text);

  FileSystem& _files;
  const std::string _begin;    // of all paths
  const std::string _newPath;  // of one on its way
  const size_t _max;
  osa::PlainMutex _mutex;  // one change at a time
};

}  // namespace tavix::daemon
