#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "tavix/settings/client/ProtocolException.h"
#include "tavix/settings/client/ProtocolOptions.h"

namespace tavix::settings::client {

// A connection to a daemon, in lines and with time-outs: the lower half of ProtocolClient, which knows no request.
//
// A call begins with StartCall; what it sends and reads after that counts for its time-out and its bytes.
//
// Threads: one.
// Owns:    the descriptor.
// Errors:  ProtocolException. Each closes the connection.
class LineSocket {
 public:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;

  // Is told how many of all bytes have left.
  using Progress = std::function<void(size_t done, size_t all)>;

  // One attempt to connect.
  explicit LineSocket(const ProtocolOptions& options);
  ~LineSocket() { Close(); }

  LineSocket(const LineSocket&) = delete;
  LineSocket& operator=(const LineSocket&) = delete;

  const std::string& GetAddress() const { return _address; }
  int GetDescriptor() const { return _descriptor; }

  const ProtocolTimeouts& GetTimeouts() const { return _timeouts; }
  void SetTimeouts(const ProtocolTimeouts& timeouts) { _timeouts = timeouts; }

  // Throws kLost when the connection is closed.
  void StartCall();

  // Receives what has come so far, without waiting. False when the server has ended the connection behind it.
  bool ReceiveAvailable();

  // Receives while it sends, so that a server that has to send first does not stop it.
  void Send(const std::string& text, const Progress& progress);

  // The next line, without its line feed.
  std::string ReadLine();

  // The next line if it has been received whole.
  std::optional<std::string> TakeLine();

  // Makes a line that was just taken the next one again.
  void PutBack(const std::string& line);

  // Waits until something is received; false when that takes longer than the limit. Without a limit it waits for ever.
  bool ReceiveWithin(std::optional<Milliseconds> limit);

  // Whether bytes were received that were not taken yet.
  bool HasBytes() const { return _received.size() > _start; }

  // What the bytes of a message count from.
  void StartMessage() { _messageBytes = 0; }

  // Closes the connection and throws.
  [[noreturn]] void Fail(ProtocolException::Reason reason, const std::string& text, const std::string& hint = {});
  [[noreturn]] void FailTimedOut(Milliseconds limit);
  [[noreturn]] void FailLost();

  void Close();

 private:
  void Connect(const ProtocolOptions& options);
  enum class Received { kBytes, kNothing, kEnd };
  Received TryReceive();
  void Receive();
  short Await(short events, std::optional<Milliseconds> limit);
  short AwaitProgress(short events);

  ProtocolTimeouts _timeouts;
  const size_t _maxMessageBytes;
  std::string _address;
  int _descriptor = -1;

  std::optional<Clock::time_point> _end;  // of the call
  bool _wasSent = false;                  // some of the call's request

  bool _isLarge = false;  // a request was larger than a server takes by default
  std::string _received;  // and not yet read, from _start on
  size_t _start = 0;
  size_t _scanned = 0;       // of it, without a line feed
  size_t _messageBytes = 0;  // of the message that is being read, in whole lines
};

}  // namespace tavix::settings::client
