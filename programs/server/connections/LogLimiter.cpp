#include "programs/server/connections/LogLimiter.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "programs/server/connections/LogPeer.h"
#include "tavix/core/LogFilter.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

constexpr std::chrono::seconds kSecond{1};
constexpr std::chrono::minutes kMinute{1};
constexpr size_t kMaxExample = 200;
const std::string kOthers = "further peers";

std::atomic<LogLimiter*> g_limiter{nullptr};

}  // namespace

LogLimiter::LogLimiter() : _timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  g_limiter = this;
  core::SetLogFilter(FilterLine);
}

LogLimiter::~LogLimiter() {
  core::SetLogFilter(nullptr);
  g_limiter = nullptr;
  std::vector<std::string> lines;
  for (auto& [key, cause] : _causes) {
    if (cause.leftOut > 0) lines.push_back(TakeReport(std::get<0>(key), cause));
  }
  Report(lines);
}

bool LogLimiter::FilterLine(core::LogLevel level, const char* format, const std::string& text) {
  if (level > core::kLogWarning) return true;
  const LogPeer* const peer = LogPeer::Find();
  LogLimiter* const limiter = peer ? g_limiter.load() : nullptr;
  if (!limiter) return true;
  try {
    return limiter->TakeLine(peer->GetName(), format, peer->GetKind(), text, Clock::now());
  } catch (const std::exception&) {
    return false;  // no memory to count it
  }
}

bool LogLimiter::TakeLine(const std::string& peer, const char* format, int kind, const std::string& text,
                          Clock::time_point now) {
  std::vector<std::string> reports;
  bool isTaken = false;
  {
    osa::PlainMutexLock lock(_mutex);
    Cause& cause = FindCause(peer, format, kind, now);
    if (cause.leftOut > 0 && cause.MayLog(now)) {
      reports.push_back(TakeReport(peer, cause));
      cause.NoteLine(now);
    }
    isTaken = cause.MayLog(now);
    if (isTaken) {
      cause.NoteLine(now);
      cause.example = text.substr(0, kMaxExample);
    } else {
      ++cause.leftOut;
      if (!_isTimerSet) SetTimer(now, cause.GetNextTime());
    }
  }
  // With the mutex released: a line that is logged comes through this filter again.
  Report(reports);
  return isTaken;
}

void LogLimiter::ReportDue(Clock::time_point now) {
  uint64_t ignored = 0;
  if (read(_timer.Get(), &ignored, sizeof ignored) < 0) ignored = 0;  // it has not expired, or there is none
  std::vector<std::string> lines;
  {
    osa::PlainMutexLock lock(_mutex);
    _isTimerSet = false;
    Clock::time_point due = Clock::time_point::max();
    for (auto& [key, cause] : _causes) {
      if (cause.leftOut == 0) continue;
      if (cause.MayLog(now)) {
        lines.push_back(TakeReport(std::get<0>(key), cause));
        cause.NoteLine(now);
      } else {
        due = std::min(due, cause.GetNextTime());
      }
    }
    if (due < Clock::time_point::max()) SetTimer(now, due);
  }
  Report(lines);
}

// Of nobody, so that reports are not bounded in turn.
void LogLimiter::Report(const std::vector<std::string>& lines) {
  static core::Logger* const logger = core::Logger::GetLogger("LogLimiter");
  const LogPeer nobody(nullptr, 0);
  for (const std::string& line : lines) logger->Warning("%s", line.c_str());
}

std::string LogLimiter::TakeReport(const std::string& peer, Cause& cause) {
  const std::string count = std::to_string(cause.leftOut);
  cause.leftOut = 0;
  return peer + ": lines left out: " + count + ", like: " + cause.example;
}

LogLimiter::Cause& LogLimiter::FindCause(const std::string& peer, const char* format, int kind, Clock::time_point now) {
  const Key key(peer, format, kind);
  const auto known = _causes.find(key);
  if (known != _causes.end()) return known->second;
  if (_causes.size() >= kMaxCauses) RemoveOld(now);
  return _causes[_causes.size() < kMaxCauses ? key : Key(kOthers, nullptr, 0)];
}

// Those that begin anew may as well be forgotten.
void LogLimiter::RemoveOld(Clock::time_point now) {
  for (auto next = _causes.begin(); next != _causes.end();) {
    const Cause& cause = next->second;
    const bool isOld = cause.leftOut == 0 && (cause.times.empty() || now - cause.GetLastTime() >= kMinute);
    next = isOld ? _causes.erase(next) : std::next(next);
  }
}

// The line before the last ten, or hundred, shows when there is room for another one.
LogLimiter::Clock::time_point LogLimiter::Cause::GetNextTime() const {
  Clock::time_point due{};
  const size_t count = times.size();
  if (count >= kMaxInASecond) {
    const size_t end = count < kMaxInAMinute ? count : next;
    due = times[(end + count - kMaxInASecond) % count] + kSecond;
  }
  if (count == kMaxInAMinute) due = std::max(due, times[next] + kMinute);
  return due;
}

void LogLimiter::Cause::NoteLine(Clock::time_point now) {
  if (times.size() < kMaxInAMinute) {
    times.push_back(now);
  } else {
    times[next] = now;
    next = (next + 1) % kMaxInAMinute;
  }
}

void LogLimiter::SetTimer(Clock::time_point now, Clock::time_point due) {
  const auto wait = std::max<std::chrono::nanoseconds>(due - now, std::chrono::milliseconds(1));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
  itimerspec timer{};
  timer.it_value.tv_sec = static_cast<time_t>(seconds.count());
  timer.it_value.tv_nsec = static_cast<long>((wait - seconds).count());
  _isTimerSet = timerfd_settime(_timer.Get(), 0, &timer, nullptr) == 0;
}

}  // namespace tavix::daemon
