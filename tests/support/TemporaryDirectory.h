#pragma once

#include <string>

namespace tavix::test {

// A directory of a test's own, below the system's temporary directory; gone with all that is in it when the test ends.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();

  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& GetPath() const { return _path; }

  // Where "name" lies in it.
  std::string Path(const std::string& name) const;

  // Writes a file in it and returns the file's path.
  std::string Write(const std::string& name, const std::string& text) const;

  // A file's bytes; a missing file throws.
  std::string Read(const std::string& name) const;

  bool Has(const std::string& name) const;

 private:
  std::string _path;
};

}  // namespace tavix::test
