#include "tests/support/DiskFloor.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>

namespace tavix::test {

namespace {

constexpr std::chrono::milliseconds kPause{20};

}  // namespace

DiskFloor::DiskFloor(const std::string& path)
    : _file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)),
      _calls(
          kPause, [this] { return Append(); }, [] {}) {}

std::string DiskFloor::Append() const {
  const std::string record(128, 'r');
  const bool isSynced = write(_file.Get(), record.data(), record.size()) == static_cast<ssize_t>(record.size()) &&
                        fdatasync(_file.Get()) == 0;
  return isSynced ? "" : "not synced";
}

}  // namespace tavix::test
