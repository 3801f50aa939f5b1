#include "tavix/core/Logger.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/LogOutput.h"
#include "tavix/core/RotatingLogFile.h"
#include "tavix/core/SettingsText.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/Thread.h"

namespace tavix::core {

namespace {

constexpr size_t kLongestLine = 1024;
constexpr size_t kKeptLines = 256;
constexpr std::chrono::seconds kFoldTime{10};

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

// The one log of the process: outputs, the lines that wait for outputs, and the message that may be repeating. It is
// never freed, so that logging works to the end.
class Log {
 public:
  static Log& Get() {
    static Log* const log = new Log;
    return *log;
  }

  Logger* FindOrAdd(const std::string& name, std::unique_ptr<Logger> (*make)(const std::string&)) {
    std::lock_guard<std::mutex> lock(_mutex);
    std::unique_ptr<Logger>& logger = _loggers[name];
    if (!logger) logger = make(name);
    return logger.get();
  }

  void Write(LogLevel level, const std::string& text) {
    std::lock_guard<std::mutex> lock(_mutex);
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

  // Lines are kept from here on, until WriteKeptLines.
  void ReplaceOutputs(std::vector<std::unique_ptr<LogOutput>> outputs) {
    std::lock_guard<std::mutex> lock(_mutex);
    WriteRepeats();
    _lastText.clear();
    _outputs = std::move(outputs);
    _file.reset();
    _filePath.clear();
    _keepsLines = true;
  }

  void WriteKeptLines() {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const Line& line : _keptLines) PassOn(line);
    _keptLines.clear();
    _keepsLines = false;
  }

  // Throws osa::Exception when the file can't or may not be used.
  void SetFile(const std::string& path) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_file && path == _filePath) return;
    _file.reset();
    _filePath.clear();
    _file = std::make_unique<RotatingLogFile>(_fileDirectory, path);
    _filePath = path;
  }

  void SetFileDirectory(const std::string& directory) {
    std::lock_guard<std::mutex> lock(_mutex);
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

  Log();

  void WriteLine(LogLevel level, const std::string& text) {
    Line line{level, TimeStamp() + " " + NameOf(level) + " " + text, text};
    if (line.line.size() >= kLongestLine) line.line.resize(kLongestLine - 1);
    line.line += '\n';
    if (_keepsLines) {
      _keptLines.push_back(std::move(line));
      if (_keptLines.size() > kKeptLines) _keptLines.pop_front();
    } else {
      PassOn(line);
    }
  }

  void PassOn(const Line& line) {
    for (const auto& output : _outputs) output->Write(line.level, line.line, line.text);
    if (_file) _file->Write(line.level, line.line, line.text);
  }

  void WriteRepeats() {
    if (_repeats == 0) return;
    WriteLine(_lastLevel, "last message repeated " + std::to_string(_repeats) + " times");
    _repeats = 0;
  }

  std::mutex _mutex;  // guards everything here
  std::map<std::string, std::unique_ptr<Logger>> _loggers;
  std::vector<std::unique_ptr<LogOutput>> _outputs;
  std::unique_ptr<LogOutput> _file;
  std::string _filePath;
  std::string _fileDirectory = "/var/log";
  bool _keepsLines = false;
  std::deque<Line> _keptLines;
  LogLevel _lastLevel = kLogTrace;
  std::string _lastText;
  Clock::time_point _lastWritten{};
  unsigned long _repeats = 0;
};

void ReportThreadException(const char* threadName, const char* what) {
  Logger::GetLogger("Thread")->Error("thread '%s' ended by an exception: %s", threadName, what);
}

Log::Log() {
  _outputs.push_back(MakeDescriptorOutput(STDERR_FILENO));
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
    Log::Get().Write(level, PrintableText(_name + ": " + Format(format, arguments), kLongestLine));
  } catch (...) {  // whoever logs has something better to do than to handle a log that failed
  }
}

void Logger::ConfigureLogging(const IniFile& settings, const std::string& group) {
  std::vector<std::unique_ptr<LogOutput>> outputs;
  if (settings.GetBoolOrDefault(group, "log.syslog", true)) outputs.push_back(MakeSystemLogOutput());
  if (settings.GetBoolOrDefault(group, "log.stdout", false)) outputs.push_back(MakeDescriptorOutput(STDOUT_FILENO));
  if (settings.GetBoolOrDefault(group, "log.stderr", false)) {
    outputs.push_back(s_isJournal ? MakeJournalOutput(STDERR_FILENO) : MakeDescriptorOutput(STDERR_FILENO));
  }
  s_level.store(settings.GetIntOrDefault(group, "log.level", kLogError), std::memory_order_relaxed);
  Log::Get().ReplaceOutputs(std::move(outputs));
  const std::string& file = settings.GetValueOrDefault(group, "log.file");
  if (!file.empty()) ModifyLogRotateConf(file, group);
  Log::Get().WriteKeptLines();  // last, so that the file gets them, too
}

void Logger::SetJournal(bool isJournal) {
  s_isJournal = isJournal;
}

void Logger::ClearAppenders() {
  Log::Get().ReplaceOutputs({});
}

void Logger::ModifyLogRotateConf(const std::string& file, const std::string& group) {
  try {
    Log::Get().SetFile(file);
  } catch (const osa::Exception& exception) {
    GetLogger("Logger")->Warning("%s (log.file of group '%s')", exception.what(), group.c_str());
  }
}

void Logger::SetLogFileDirectory(const std::string& directory) {
  Log::Get().SetFileDirectory(directory);
}

}  // namespace tavix::core
