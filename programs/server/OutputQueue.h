#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>

namespace tavix::daemon {

// What a connection is still to be sent, as an ostream that never waits: a message that is flushed goes to the socket
// as far as the socket takes it, and the rest is kept until the connection's loop sends it on.
//
// Threads: writers, one at a time (the handler's output mutex), on any thread; the loop calls the rest meanwhile.
// Errors:  a peer that is gone, or has more unread than "most" bytes, breaks the queue: writers fail, kept bytes go.
class OutputQueue : private std::streambuf {
 public:
  using Clock = std::chrono::steady_clock;

  // descriptor: a non-blocking socket, borrowed. onKept: called, with the queue locked, when bytes were kept that
  // nobody waits to send yet, and when the queue breaks.
  OutputQueue(int descriptor, size_t most, std::function<void()> onKept);

  std::ostream& GetOstream() { return _ostream; }

  // Sends on what is kept, as far as the socket takes it. Returns what stays.
  size_t Send();

  size_t GetKeptBytes() const;
  bool IsBroken() const;

  // Whether it broke because the peer had more unread than is kept.
  bool IsOverfull() const;

  // Since when the peer has taken nothing of what is kept.
  Clock::time_point GetLastProgress() const;

 private:
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;
  int sync() override;

  size_t SendSome(const char* bytes, size_t count);
  void Keep(const char* bytes, size_t count);
  void Break();

  const int _descriptor;
  const size_t _most;
  const std::function<void()> _onKept;
  std::string _message;  // the writer's, until it is flushed
  std::ostream _ostream;
  mutable std::mutex _mutex;  // guards what follows
  std::string _kept;
  size_t _sent = 0;  // of _kept
  bool _broken = false;
  bool _overfull = false;
  Clock::time_point _lastProgress{};
};

}  // namespace tavix::daemon
