#include "programs/bridge/engines/ThreadedEngine.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::bridge {

namespace {

constexpr unsigned int kStackSize = 256 * 1024;  // TLS libraries and parsers of JSON take more than sockets do

int MakeWake() {
  const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake < 0) throw osa::Exception("Failed to make an engine: %s", std::strerror(errno));
  return wake;
}

}  // namespace

ThreadedEngine::ThreadedEngine(const char* name, EventQueue& events)
    : _name(name), _events(events), _wake(MakeWake()) {}

void ThreadedEngine::Connect(const ConnectOptions& options) {
  Close();
  Begin();
  _options = options;
  _events.Open();
  osa::Runnable* const work = this;
  auto thread = std::make_unique<osa::Thread>(_name, work, kStackSize, static_cast<signed char>(0));
  try {
    thread->Run();
    _thread = std::move(thread);
  } catch (const std::exception& exception) {
    // Nobody else pushes, and the queue was just opened: there is a place.
    Report(Lost{exception.what()});
  }
}

void ThreadedEngine::Close() {
  End();
  _events.Close();
  _thread.reset();
}

bool ThreadedEngine::Put(const std::string& key, const std::optional<std::string>& bytes, const PutOptions& options) {
  osa::PlainMutexLock lock(_mutex);
  if (!_isLinked || _isClosing || _inFlight >= kMaxInFlight) return false;
  _requests.emplace_back(PutRequest{key, bytes && bytes->empty() ? std::nullopt : bytes, options});
  ++_inFlight;
  Wake();
  return true;
}

void ThreadedEngine::Follow(const std::vector<std::string>& prefixes, Version from) {
  osa::PlainMutexLock lock(_mutex);
  if (!_isLinked || _isClosing) return;
  _requests.emplace_back(FollowRequest{prefixes, from});
  Wake();
}

void ThreadedEngine::ReportConnected(Connected event) {
  {
    osa::PlainMutexLock lock(_mutex);
    _isLinked = true;
  }
  Report(std::move(event));
}

void ThreadedEngine::ReportPutDone(PutDone event) {
  {
    osa::PlainMutexLock lock(_mutex);
    --_inFlight;
  }
  Report(std::move(event));
}

bool ThreadedEngine::IsClosing() const {
  osa::PlainMutexLock lock(_mutex);
  return _isClosing;
}

std::vector<ThreadedEngine::Request> ThreadedEngine::TakeRequests() {
  osa::PlainMutexLock lock(_mutex);
  std::uint64_t count;
  [[maybe_unused]] const ssize_t ignored = read(_wake.Get(), &count, sizeof count);
  return std::exchange(_requests, {});
}

void ThreadedEngine::Run() {
  std::string reason;
  try {
    reason = RunLink(_options);
  } catch (const std::exception& exception) {
    reason = exception.what();
  }
  Unlink();
  Report(Lost{std::move(reason)});
}

void ThreadedEngine::Begin() {
  TakeRequests();
  osa::PlainMutexLock lock(_mutex);
  _isClosing = false;
  _isLinked = false;
  _inFlight = 0;
}

void ThreadedEngine::End() {
  osa::PlainMutexLock lock(_mutex);
  _isClosing = true;
  Wake();
}

void ThreadedEngine::Unlink() {
  osa::PlainMutexLock lock(_mutex);
  _isLinked = false;
}

void ThreadedEngine::Wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = write(_wake.Get(), &one, sizeof one);
}

}  // namespace tavix::bridge
