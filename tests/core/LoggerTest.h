#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using Log = core::Logger;

inline constexpr size_t kTimeSize = 25;  // of "2001-02-03T04:05:06.789Z "

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The lines from their level on.
inline std::vector<std::string> WithoutTimes(const std::string& text) {
  std::vector<std::string> lines = Lines(text);
  for (std::string& line : lines) line.erase(0, kTimeSize);
  return lines;
}

inline void LogAt(core::LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));

inline void LogAt(core::LogLevel level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log::GetLogger("Test")->LogMessageV(level, format, arguments);
  va_end(arguments);
}

inline void LogAtEveryLevel() {
  LogAt(core::kLogError, "3");
  LogAt(core::kLogWarning, "4");
  LogAt(core::kLogNotice, "5");
  LogAt(core::kLogInformation, "6");
  LogAt(core::kLogTrace, "8");
}

// Keys that "keys" lacks are set so that all levels go to standard output alone.
inline void Configure(core::IniFile::KeyMap keys) {
  keys.insert({{"log.level", "8"}, {"log.syslog", "false"}, {"log.stdout", "true"}});
  Log::ConfigureLogging(core::IniFile(core::IniFile::GroupMap{{"Log", keys}}), "Log");
}

// Logging as a whole belongs to the process; every test begins with it going to standard output, which is captured, and
// with log files in a directory of the test's own.
class Logger : public testing::Test {
 protected:
  Logger() {
    Log::SetLogFileDirectory(_directory.GetPath());
    Configure({});
  }

  // What was captured tells what failed. A count of repeats that is still due must not go to the next test.
  ~Logger() override {
    const std::string captured = _output.Finish();
    const CapturedOutput swallowed(STDOUT_FILENO);
    Configure({});
    if (HasFailure()) std::cerr << captured;
  }

  std::vector<std::string> WrittenLines() { return WithoutTimes(_output.Finish()); }

  const TemporaryDirectory _directory;
  CapturedOutput _output{STDOUT_FILENO};
  Log* const _log = Log::GetLogger("Test");
};

}  // namespace tavix::test
