#pragma once

#include <memory>
#include <string>

namespace tavix::core {

enum LogLevel : int;  // Logger.h

// Where log lines go. No call waits for the reader of the lines.
//
// Threads: called with the log's lock held, so one call at a time.
class LogOutput {
 public:
  virtual ~LogOutput() = default;

  // line: whole, with its time and its line feed. text: the same line from the logger's name on, without line feed, for
  // outputs that add time and level themselves. False when the line could not be taken and is lost here.
  [[nodiscard]] virtual bool Write(LogLevel level, const std::string& line, const std::string& text) = 0;
};

// Writes lines to a descriptor that it does not own, for example standard error.
std::unique_ptr<LogOutput> MakeDescriptorOutput(int descriptor);

// The same for a descriptor that the system's journal reads: without the time, which it adds, and with the level as it
// expects it, "<4>" for a warning.
std::unique_ptr<LogOutput> MakeJournalOutput(int descriptor);

// Writes to the system log, under the process's name. socket: where its daemon listens, to be asked beforehand whether
// it takes a line.
std::unique_ptr<LogOutput> MakeSystemLogOutput(const std::string& socket = "/dev/log");

}  // namespace tavix::core
