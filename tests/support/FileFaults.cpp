#include "tests/support/FileFaults.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tavix/osa/Descriptor.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

FileFaultControl* Map(const std::string& path) {
  const osa::Descriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  void* const memory = mmap(nullptr, sizeof(FileFaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), path);
  return static_cast<FileFaultControl*>(memory);
}

std::string WithOption(const char* variable, const std::string& option) {
  const char* const before = std::getenv(variable);
  return (before ? std::string(before) + ":" : "") + option;
}

void Release(std::atomic<uint32_t>& holds) {
  holds = 0;
  syscall(SYS_futex, &holds, FUTEX_WAKE, INT_MAX);
}

// The loader takes a blank in a path for the end of it.
std::string LinkWithoutBlanks(const char* module, const std::string& link) {
  if (symlink(module, link.c_str()) != 0 && errno != EEXIST)
    throw std::system_error(errno, std::generic_category(), link);
  return link;
}

}  // namespace

FileFaults::FileFaults(std::string directory)
    : _directory(std::move(directory)),
      _path(_ownDirectory.Write("control", std::string(sizeof(FileFaultControl), '\0'))),
      _control(Map(_path)) {}

FileFaults::~FileFaults() {
  LetSyncsGo();
  ReleaseWrites();
  Release(_control->holdsLookups);
  munmap(_control, sizeof *_control);
}

FileFaults::Environment::Environment(const FileFaults& faults, const char* preload)
    : _preload("LD_PRELOAD", LinkWithoutBlanks(preload, faults._ownDirectory.Path("faults.so")).c_str()),
      _control(FileFaultControl::kPathVariable, faults._path.c_str()),
      _directory(FileFaultControl::kDirectoryVariable, faults._directory.c_str()),
      // It wants to be the first library of all, although it does without.
      _addressSanitizer("ASAN_OPTIONS", WithOption("ASAN_OPTIONS", "verify_asan_link_order=0").c_str()),
      // A daemon whose disk hangs ends without its threads.
      _threadSanitizer("TSAN_OPTIONS", WithOption("TSAN_OPTIONS", "report_thread_leaks=0").c_str()) {}

void FileFaults::Fail(int error, uint64_t from, uint64_t to) {
  _control->failsTo = 0;
  _control->error = error;
  _control->failsFrom = from;
  _control->failsTo = to;
}

void FileFaults::SetHeldName(const std::string& name) {
  if (name.size() >= FileFaultControl::kLongestName) throw std::length_error(name);
  name.copy(_control->heldName, name.size());
  _control->heldName[name.size()] = '\0';
}

void FileFaults::HoldSyncs(const std::string& name) {
  SetHeldName(name);
  _control->holdsSyncs = 1;
}

void FileFaults::LetSyncsGo() {
  Release(_control->holdsSyncs);
}

std::string FileFaults::NameSyncingThread(pid_t daemon) const {
  std::ifstream file("/proc/" + std::to_string(daemon) + "/task/" + std::to_string(_control->syncingThread) + "/comm");
  std::string name;
  if (!std::getline(file, name)) throw std::runtime_error("The thread that syncs has ended");
  return name;
}

void FileFaults::HoldWrites(const std::string& name) {
  SetHeldName(name);
  _control->holdsWrites = 1;
}

void FileFaults::ReleaseWrites() {
  Release(_control->holdsWrites);
}

void FileFaults::HoldLookups(const std::string& host) {
  SetHeldName(host);
  _control->holdsLookups = 1;
}

void FileFaults::AwaitHeldLookup() const {
  if (!Eventually([this] { return _control->heldLookups > 0; })) throw std::runtime_error("No look-up is held in time");
}

void FileFaults::AwaitHeldWrite() const {
  if (!Eventually([this] { return _control->heldWrites > 0; })) throw std::runtime_error("No write is held in time");
}

void FileFaults::AwaitHeldSync() const {
  if (!Eventually([this] { return IsSyncHeld(); })) throw std::runtime_error("No sync is held in time");
}

}  // namespace tavix::test
