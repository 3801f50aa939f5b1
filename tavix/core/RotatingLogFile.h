#pragma once

#include <memory>
#include <string>

#include "tavix/core/LogOutput.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::core {

// A log file that is rotated by size: FILE becomes FILE.1, FILE.1 becomes FILE.2 and so on; the oldest is dropped. A
// file that somebody moved away or removed is made again at the next line, so rotation from outside works too.
//
// Threads: as LogOutput.
class RotatingLogFile : public LogOutput {
 public:
  struct Limits {
    size_t bytes = 1024 * 1024;  // of one file
    int kept = 3;                // old files
  };

  // Opens, or makes, "file" in or below "directory": a name without "/" lies in it, another one must begin with it.
  // No link is followed on the way from there, and only a regular file is written to. Throws osa::Exception.
  RotatingLogFile(const std::string& directory, const std::string& file, Limits limits);
  RotatingLogFile(const std::string& directory, const std::string& file) : RotatingLogFile(directory, file, Limits()) {}

  // A file that is full, or can't be made again, costs the line; the next one tries again.
  [[nodiscard]] bool Write(LogLevel level, const std::string& line, const std::string& text) override;

 private:
  void Open();
  bool IsInPlace() const;
  void Rotate();
  bool Append(const std::string& line);

  const std::string _path;  // for error texts
  const Limits _limits;
  std::string _name;  // in _directory
  osa::Descriptor _directory;
  osa::Descriptor _file;
};

}  // namespace tavix::core
