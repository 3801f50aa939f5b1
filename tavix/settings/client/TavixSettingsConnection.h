#pragma once

#include <atomic>
#include <iosfwd>
#include <string>

namespace tavix::core {
class Logger;
}
namespace tavix::osa {
class InputWatch;
}

namespace tavix::settings::client {

// A pair of streams to a settings server.
//
// Threads: its owner calls it from one thread at a time; BreakConnection, AbortConnection and DescribeFailure may be
//          called from any thread while others use the streams.
class TavixSettingsConnection {
 public:
  virtual ~TavixSettingsConnection() = default;

  TavixSettingsConnection(const TavixSettingsConnection&) = delete;
  TavixSettingsConnection& operator=(const TavixSettingsConnection&) = delete;

  // Connects unless both streams are there and in order. Throws osa::Exception when that fails.
  virtual void EnsureConnection(int attempts) = 0;

  // Frees the streams where they belong to the connection; the pointers are the owner's to clear.
  virtual void CloseConnection() = 0;

  // Whether the streams outlive CloseConnection: what was on its way when it was called is then read later.
  virtual bool OutlivesClosing() const { return false; }

  // Fails the streams at once, and wakes the threads that sleep in them. They still must be closed.
  virtual void BreakConnection() noexcept = 0;

  // The same for good: no attempt to connect is made any more, and one that is under way ends soon.
  virtual void AbortConnection() noexcept = 0;

  // Shortens what a later write may wait for a peer that does not read, to milliseconds.
  virtual void LimitWrites(unsigned int timeout) noexcept = 0;

  // Watches the input stream, for as long as that is there. Null where that can't be done: then somebody has to read to
  // find out that there is something to read.
  virtual osa::InputWatch* WatchInput() { return nullptr; }

  // Counts the connections that were made: another number is another connection, whose server may be another one.
  unsigned int GetNumber() const { return _number; }

  // Why there is no connection: where the last attempt went, why it failed, and for how long attempts have failed.
  // Empty when there is one, or no attempt has failed. Any thread may call.
  virtual std::string DescribeFailure() const { return std::string(); }

  bool IsReady() const { return _pIstream && _pOstream; }
  std::istream* GetIstream() const { return _pIstream; }
  std::ostream* GetOstream() const { return _pOstream; }

  void ClearStreams() {
    _pIstream = nullptr;
    _pOstream = nullptr;
  }

 protected:
  TavixSettingsConnection();

  // Whether both streams are there and neither has failed.
  bool IsInOrder() const;

  core::Logger* const _logger;
  // Null when not connected. Atomic, so that a reader that finds them gone against all rules can report it.
  std::atomic<std::istream*> _pIstream{nullptr};
  std::atomic<std::ostream*> _pOstream{nullptr};
  unsigned int _number = 0;  // the owner's
};

}  // namespace tavix::settings::client
