#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace tavix::programs {

// A file that always holds the latest figures, whole, for everybody to read: each time a new one takes its place. It is
// not synced: after a power cut the figures would be of no use.
//
// Removes nothing that it did not make, but for PATH.new, which is its own.
// Threads: one at a time.
// Errors:  none leave it. What fails is logged when it begins to fail.
class MetricsFile {
 public:
  // path: links are not followed. compose: makes the figures' text.
  MetricsFile(const std::string& path, std::function<std::string()> compose);

  // Takes the file away, unless another one took its place: the figures of a process that has ended are nobody's.
  ~MetricsFile();

  MetricsFile(const MetricsFile&) = delete;
  MetricsFile& operator=(const MetricsFile&) = delete;

  void Write();

 private:
  // Which file it is, whatever its name.
  struct Identity {
    dev_t device = 0;
    ino_t number = 0;
  };

  void Replace(const std::string& text);
  Identity WriteNew(const std::string& text) const;
  bool IsOurs() const;

  const std::string _path;
  const std::string _newPath;
  const std::function<std::string()> _compose;
  std::optional<Identity> _written;  // that took the path's place last
  bool _fails = false;
};

}  // namespace tavix::programs
