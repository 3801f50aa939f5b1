#include "programs/server/persistence/DeferredLog.h"

#include <exception>
#include <utility>

namespace tavix::daemon {

void DeferredLog::Add(bool isError, const char* what, const char* why) {
  try {
    Line line{isError, std::string(what) + why};
    osa::PlainMutexLock lock(_mutex);
    _lines.push_back(std::move(line));
  } catch (const std::exception&) {
    return;
  }
}

bool DeferredLog::IsEmpty() const {
  osa::PlainMutexLock lock(_mutex);
  return _lines.empty();
}

void DeferredLog::Write() {
  std::vector<Line> lines;
  {
    osa::PlainMutexLock lock(_mutex);
    lines.swap(_lines);
  }
  // With the mutex released: a log on a slow disk must not make those wait who add lines.
  for (const Line& line : lines) {
    if (line.isError) {
      _logger.Error("%s", line.text.c_str());
    } else {
      _logger.Warning("%s", line.text.c_str());
    }
  }
}

}  // namespace tavix::daemon
