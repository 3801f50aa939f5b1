#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

inline void Configure(const char* level, const char* toStandardOutput) {
  core::IniFile settings;
  settings.SetValue("Test", "log.level", level);
  settings.SetValue("Test", "log.stdout", toStandardOutput);
  settings.SetValue("Test", "log.syslog", "false");
  core::Logger::ConfigureLogging(settings, "Test");
}

// The lines from their level on.
inline std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line.substr(line.find(' ') + 1));
  return lines;
}

// Logging belongs to the process: each test begins with all levels going to standard output, which is captured, and
// with log files in a directory of its own, and leaves a silent log behind.
class LogManager : public testing::Test {
 protected:
  LogManager() {
    core::Logger::SetLogFileDirectory(_directory.GetPath());
    Configure("8", "true");
  }

  ~LogManager() override {
    Configure("3", "false");
    if (HasFailure()) std::cout << _output.Finish();
  }

  std::vector<std::string> WrittenLines() { return LinesOf(_output.Finish()); }

  // Of all the files that a log file was rotated to, the oldest first.
  std::vector<std::string> LinesInFiles(const std::string& name) const {
    std::string text;
    for (const char* age : {".3", ".2", ".1", ""}) {
      if (_directory.Has(name + age)) text += _directory.Read(name + age);
    }
    return LinesOf(text);
  }

  const TemporaryDirectory _directory;
  CapturedOutput _output{STDOUT_FILENO};
  core::Logger* const _log = core::Logger::GetLogger("Test");
};

}  // namespace tavix::test
