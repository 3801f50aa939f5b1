#include "tavix/core/Logger.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/LogFilter.h"
#include "tavix/core/LogOutput.h"
#include "tavix/core/RotatingLogFile.h"
#include "tavix/core/SettingsText.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/Thread.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::core {

namespace {

constexpr size_t kLongestLine = 1024;
constexpr size_t kKeptLines = 256;
constexpr std::chrono::seconds kFoldTime{10};
constexpr char kFileKey[] = "log.file";

const char* NameOf(LogLevel level) {
  if (level <= kLogError) return "ERROR";
  if (level == kLogWarning) return "WARNING";
  if (level == kLogNotice) return "NOTICE";
  if (level < kLogTrace) return "INFO";
  return "TRACE";
}

std::string TimeStamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  char date[32];
  char stamp[48];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(stamp, sizeof stamp, "%s.%03ldZ", date, now.tv_nsec / 1000000);
  return stamp;
}

std::string Format(const char* format, va_list arguments) TAVIX_PRINTF(1, 0);

std::string Format(const char* format, va_list arguments) {
  char text[kLongestLine];
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  if (length < 0) return format;
  return std::string(text, std::min(static_cast<size_t>(length), sizeof text - 1));
}

using Outputs = std::vector<std::unique_ptr<LogOutput>>;

// The one log of the process: outputs, the lines that wait for outputs, and the message that may be repeating. It is
// never freed, so that logging works to the end.
class Log {
 public:
  static Log& Get() {
    static Log* const log = new Log;
    return *log;
  }

  Logger* FindOrAdd(const std::string& name, std::unique_ptr<Logger> (*make)(const std::string&))
      TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    std::unique_ptr<Logger>& logger = _loggers[name];
    if (!logger) logger = make(name);
    return logger.get();
  }

  void Write(LogLevel level, const std::string& text) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    if (level == _lastLevel && text == _lastText && Clock::now() - _lastWritten < kFoldTime) {
      ++_repeats;
      return;
    }
    WriteRepeats();
    _lastLevel = level;
    _lastText = text;
    _lastWritten = Clock::now();
    WriteLine(level, text);
  }

  // Lines are kept from here on, until the next Configure.
  void ClearOutputs() TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    TakeLeave();
    _outlets.clear();
    _file = Outlet();
    _filePath.clear();
    _keepsLines = true;
  }

  // file: of that path; may be null.
  void Configure(Outputs outputs, std::unique_ptr<LogOutput> file, const std::string& filePath) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    TakeLeave();
    _outlets.clear();
    for (auto& output : outputs) _outlets.emplace_back(std::move(output));
    _file = Outlet(std::move(file));
    _filePath = filePath;
    for (const Line& line : std::exchange(_keptLines, {})) PassOn(line);
    _keepsLines = false;
  }

  // Throws osa::Exception when the file can't or may not be used.
  std::unique_ptr<LogOutput> OpenFile(const std::string& path) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    return std::make_unique<RotatingLogFile>(_fileDirectory, path);
  }

  // Throws as OpenFile, and the file before it stays.
  void SetFile(const std::string& path) TAVIX_EXCLUDES(_mutex) {
    std::unique_ptr<LogOutput> file = OpenFile(path);
    osa::PlainMutexLock lock(_mutex);
    _file = Outlet(std::move(file));
    _filePath = path;
  }

  bool HasFile(const std::string& path) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    return _file.output && path == _filePath;
  }

  // What nobody would get goes there.
  void FallBackTo(std::unique_ptr<LogOutput> output) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    if (_outlets.empty() && !_file.output && !_keepsLines) _outlets.emplace_back(std::move(output));
  }

  void SetFileDirectory(const std::string& directory) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    _fileDirectory = directory;
    while (_fileDirectory.size() > 1 && _fileDirectory.back() == '/') _fileDirectory.pop_back();
  }

 private:
  using Clock = std::chrono::steady_clock;

  struct Line {
    LogLevel level;
    std::string line;
    std::string text;
  };

  // An output, and how many lines it could not take since the last one that it took.
  struct Outlet {
    explicit Outlet(std::unique_ptr<LogOutput> o = nullptr) : output(std::move(o)) {}

    std::unique_ptr<LogOutput> output;
    unsigned long lost = 0;
  };

  Log();

  static Line MakeLine(LogLevel level, const std::string& text) {
    Line line{level, TimeStamp() + " " + NameOf(level) + " " + text, text};
    if (line.line.size() >= kLongestLine) line.line.resize(kLongestLine - 1);
    line.line += '\n';
    return line;
  }

  void WriteLine(LogLevel level, const std::string& text) TAVIX_REQUIRES(_mutex) {
    Line line = MakeLine(level, text);
    if (_keepsLines) {
      _keptLines.push_back(std::move(line));
      if (_keptLines.size() > kKeptLines) _keptLines.pop_front();
    } else {
      PassOn(line);
    }
  }

  void PassOn(const Line& line) TAVIX_REQUIRES(_mutex) {
    for (Outlet& outlet : _outlets) PassOn(line, outlet);
    if (_file.output) PassOn(line, _file);
  }

  static void PassOn(const Line& line, Outlet& outlet) {
    if (!ReportLost(outlet) || !outlet.output->Write(line.level, line.line, line.text)) ++outlet.lost;
  }

  // False when the output does not even take that.
  static bool ReportLost(Outlet& outlet) {
    if (outlet.lost == 0) return true;
    const std::string text = "Logger: lines lost here, because the output took no more: ";
    const Line line = MakeLine(kLogWarning, text + std::to_string(outlet.lost));
    if (!outlet.output->Write(line.level, line.line, line.text)) return false;
    outlet.lost = 0;
    return true;
  }

  // What is still to be reported to the outputs.
  void TakeLeave() TAVIX_REQUIRES(_mutex) {
    WriteRepeats();
    _lastText.clear();
    for (Outlet& outlet : _outlets) ReportLost(outlet);
    if (_file.output) ReportLost(_file);
  }

  void WriteRepeats() TAVIX_REQUIRES(_mutex) {
    if (_repeats == 0) return;
    WriteLine(_lastLevel, "last message repeated " + std::to_string(_repeats) + " times");
    _repeats = 0;
  }

  osa::PlainMutex _mutex;
  std::map<std::string, std::unique_ptr<Logger>> _loggers TAVIX_GUARDED_BY(_mutex);
  std::vector<Outlet> _outlets TAVIX_GUARDED_BY(_mutex);
  Outlet _file TAVIX_GUARDED_BY(_mutex);
  std::string _filePath TAVIX_GUARDED_BY(_mutex);
  std::string _fileDirectory TAVIX_GUARDED_BY(_mutex) = "/var/log";
  bool _keepsLines TAVIX_GUARDED_BY(_mutex) = false;
  std::deque<Line> _keptLines TAVIX_GUARDED_BY(_mutex);
  LogLevel _lastLevel TAVIX_GUARDED_BY(_mutex) = kLogTrace;
  std::string _lastText TAVIX_GUARDED_BY(_mutex);
  Clock::time_point _lastWritten TAVIX_GUARDED_BY(_mutex){};
  unsigned long _repeats TAVIX_GUARDED_BY(_mutex) = 0;
};

void ReportThreadException(const char* threadName, const char* what) {
  Logger::GetLogger("Thread")->Error("thread '%s' ended by an exception: %s", threadName, what);
}

std::atomic<LogFilter> g_filter{nullptr};

bool PassesFilter(LogLevel level, const char* format, const std::string& text) {
  const LogFilter filter = g_filter.load();
  return !filter || filter(level, format, text);
}

Log::Log() {
  _outlets.emplace_back(MakeDescriptorOutput(STDERR_FILENO));
  osa::Thread::SetExceptionReporter(ReportThreadException);
}

}  // namespace

std::atomic<int> Logger::s_level{kLogWarning};
std::atomic<bool> Logger::s_isJournal{false};

Logger* Logger::GetLogger(const std::string& name) {
  return Log::Get().FindOrAdd(name, [](const std::string& n) { return std::unique_ptr<Logger>(new Logger(n)); });
}

void Logger::LogMessageV(LogLevel level, const char* format, va_list arguments) const {
  if (!IsEnabled(level)) return;
  try {
    const std::string text = PrintableText(_name + ": " + Format(format, arguments), kLongestLine);
    if (PassesFilter(level, format, text)) Log::Get().Write(level, text);
  } catch (...) {  // a caller that logs can't do anything about a log that failed
  }
}

void SetLogFilter(LogFilter filter) {
  g_filter = filter;
}

void Logger::ConfigureLogging(const IniFile& settings, const std::string& group) {
  try {
    ReconfigureLogging(settings, group);
  } catch (const osa::Exception& exception) {
    Configure(settings, group, nullptr);
    RefuseFile(exception.what(), group);
  }
}

void Logger::ReconfigureLogging(const IniFile& settings, const std::string& group) {
  const std::string& file = settings.GetValueOrDefault(group, kFileKey);
  Configure(settings, group, file.empty() ? nullptr : Log::Get().OpenFile(file));
}

void Logger::Configure(const IniFile& settings, const std::string& group, std::unique_ptr<LogOutput> file) {
  Outputs outputs;
  if (settings.GetBoolOrDefault(group, "log.syslog", true)) outputs.push_back(MakeSystemLogOutput());
  if (settings.GetBoolOrDefault(group, "log.stdout", false)) outputs.push_back(MakeDescriptorOutput(STDOUT_FILENO));
  if (settings.GetBoolOrDefault(group, "log.stderr", false)) outputs.push_back(MakeStandardErrorOutput());
  const std::string path = file ? settings.GetValueOrDefault(group, kFileKey) : "";
  s_level.store(settings.GetIntOrDefault(group, "log.level", kLogError), std::memory_order_relaxed);
  Log::Get().Configure(std::move(outputs), std::move(file), path);
}

std::unique_ptr<LogOutput> Logger::MakeStandardErrorOutput() {
  return s_isJournal ? MakeJournalOutput(STDERR_FILENO) : MakeDescriptorOutput(STDERR_FILENO);
}

// A log that went to the file alone goes to standard error, so that it is not lost.
void Logger::RefuseFile(const char* reason, const std::string& group) {
  Log::Get().FallBackTo(MakeStandardErrorOutput());
  GetLogger("Logger")->Warning("%s (log.file of group '%s')", reason, group.c_str());
}

void Logger::SetJournal(bool isJournal) {
  s_isJournal = isJournal;
}

void Logger::ClearAppenders() {
  Log::Get().ClearOutputs();
}

void Logger::ModifyLogRotateConf(const std::string& file, const std::string& group) {
  if (Log::Get().HasFile(file)) return;
  try {
    Log::Get().SetFile(file);
  } catch (const osa::Exception& exception) {
    RefuseFile(exception.what(), group);
  }
}

void Logger::SetLogFileDirectory(const std::string& directory) {
  Log::Get().SetFileDirectory(directory);
}

}  // namespace tavix::core
