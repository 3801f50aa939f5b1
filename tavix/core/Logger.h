#pragma once

#include <atomic>
#include <cstdarg>
#include <memory>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::core {

class IniFile;
class LogOutput;

// As the system log numbers them, and one of our own below debug.
enum LogLevel : int {
  kLogError = 3,
  kLogWarning = 4,
  kLogNotice = 5,
  kLogInformation = 6,
  kLogTrace = 8,
};

// A named source of log messages. All loggers of a process share one level and one set of outputs; unconfigured,
// warnings and worse go to standard error.
//
// A message becomes one line: time (UTC), level, logger, text. Control bytes are escaped, a line has 1 KiB at most, and
// a message that repeats is counted instead of written again.
//
// Threads: everything here may be called from any thread; lines are never torn, nor lost while outputs are exchanged.
// Owns:    loggers are never freed.
// Errors:  logging throws nothing, and waits for nobody who reads the log. What an output can't take at once is
//          dropped; the output is told how many lines it missed as soon as it takes one again. A file on a disk that
//          does not answer can make it wait.
class TAVIX_EXPORT Logger {
 public:
  // The process's one logger of that name.
  static Logger* GetLogger(const std::string& name);

  const std::string& GetName() const { return _name; }

  static bool IsEnabled(LogLevel level) { return level <= s_level.load(std::memory_order_relaxed); }

  void LogMessageV(LogLevel level, const char* format, va_list arguments) const TAVIX_PRINTF(3, 0);

  void Error(const char* format, ...) const TAVIX_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    LogMessageV(kLogError, format, arguments);
    va_end(arguments);
  }
  void Warning(const char* format, ...) const TAVIX_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    LogMessageV(kLogWarning, format, arguments);
    va_end(arguments);
  }
  void Notice(const char* format, ...) const TAVIX_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    LogMessageV(kLogNotice, format, arguments);
    va_end(arguments);
  }
  void Information(const char* format, ...) const TAVIX_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    LogMessageV(kLogInformation, format, arguments);
    va_end(arguments);
  }
  void Trace(const char* format, ...) const TAVIX_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    LogMessageV(kLogTrace, format, arguments);
    va_end(arguments);
  }

  // Replaces level and outputs by what the group says:
  //   log.level   messages up to this level are written (3)
  //   log.syslog  whether to the system log (true)
  //   log.stdout  whether to standard output (false)
  //   log.stderr  whether to standard error (false)
  //   log.file    to this file as well, see SetLogFileDirectory (none)
  //
  // A file that may not or can't be used is refused with a warning, and logging goes on without it; when there is
  // nothing else to log to, on standard error.
  static void ConfigureLogging(const IniFile& settings, const std::string& group);

  // The same or nothing: when the file can't be used, it throws osa::Exception and everything stays as it was.
  static void ReconfigureLogging(const IniFile& settings, const std::string& group);

  // Whether standard error is read by the system's journal: lines on it then begin with their level as the journal
  // expects it, "<4>" for a warning, and have no time. Counts from the next ConfigureLogging on. Default: it is not.
  static void SetJournal(bool isJournal);

  // Removes all outputs. Lines that come before the next configuration are kept for it, the newest 256 of them.
  static void ClearAppenders();

  // Has the group's log go to "file" and be rotated there: at 1 MiB it becomes FILE.1, up to FILE.3; a file that was
  // moved away is made again. A file that may not be used is refused with a warning, and logging goes on as before.
  static void ModifyLogRotateConf(const std::string& file, const std::string& group);

  // The only directory in and below which log files are written, so that a client that may write settings can't choose
  // what a privileged process overwrites. A file name without "/" lies in it. Links are never followed. Default:
  // /var/log.
  static void SetLogFileDirectory(const std::string& directory);

 private:
  explicit Logger(const std::string& name) : _name(name) {}

  static void Configure(const IniFile& settings, const std::string& group, std::unique_ptr<LogOutput> file);
  static std::unique_ptr<LogOutput> MakeStandardErrorOutput();
  static void RefuseFile(const char* reason, const std::string& group);

  static std::atomic<int> s_level;
  static std::atomic<bool> s_isJournal;

  const std::string _name;
};

}  // namespace tavix::core
