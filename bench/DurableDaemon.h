#pragma once

#include <string>

#include "bench/Daemon.h"
#include "bench/Recorder.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::bench {

// A user layer of some size.
struct Layer {
  const char* name;
  size_t bytes;
};

// The least that makes a record durable.
class AppendedFile {
 public:
  // Throws osa::Exception when a file in the directory can't be made.
  explicit AppendedFile(const std::string& directory);

  // Throws osa::Exception when the record can't be made durable.
  void Append();

 private:
  const osa::Descriptor _file;
  const std::string _record = std::string(128, 'r');
};

// A daemon with a user layer. It has done its first change, which makes a snapshot of its own.
class DurableDaemon {
 public:
  // historyBytes: 0 for none.
  DurableDaemon(const Recorder& recorder, const Layer& layer, const char* durability = "always",
                const Environment& environment = {}, const char* historyBytes = "0");

  osa::Descriptor Connect() const { return _daemon.Connect(); }

 private:
  const std::string _path;
  const Daemon _daemon;
};

}  // namespace tavix::bench
