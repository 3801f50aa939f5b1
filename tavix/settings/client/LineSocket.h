#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "tavix/settings/client/LineBuffer.h"
#include "tavix/settings/client/ProtocolException.h"
#include "tavix/settings/client/ProtocolOptions.h"

namespace tavix::settings::client {

// A connection to a daemon, in lines and with time-outs: the lower half of ProtocolClient, which knows no request.
//
// A call begins with StartCall; what it sends and reads after that counts for its time-out and its bytes.
//
// Threads: one.
// Owns:    the descriptor.
// Errors:  ProtocolException. Each closes the connection. What else is thrown, such as std::bad_alloc, does not: the
//          caller closes it.
// Methods: many: those for calls, for lines out, for lines in, and for notices between calls, over one descriptor and
//          one deadline.
class LineSocket {
 public:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;

  // What one ReceiveAvailable receives at most.
  static constexpr size_t kMaxAvailableBytes = size_t{1024} * 1024;

  // Time-outs are the user's, and may be any: the sum never runs over.
  static Clock::time_point After(Clock::time_point start, Milliseconds time);

  // One attempt to connect.
  explicit LineSocket(const ProtocolOptions& options);
  ~LineSocket() { Close(); }

  LineSocket(const LineSocket&) = delete;
  LineSocket& operator=(const LineSocket&) = delete;

  const std::string& GetAddress() const { return _address; }
  int GetDescriptor() const { return _descriptor; }

  void SetTimeouts(const ProtocolTimeouts& timeouts) { _timeouts = timeouts; }

  // Throws kLost when the connection is closed.
  void StartCall();

  // Receives what has come so far, without waiting: kMaxAvailableBytes of it, and nothing while more than a message may
  // have was not taken. False when the server has ended the connection behind it.
  bool ReceiveAvailable();

  // Begins a request. isWrite: it may change the store.
  void StartRequest(std::string_view request, bool isWrite);

  // Sends what the server takes of it, and returns how much that was. 0: the server took nothing; then it was waited
  // for, and what it sent meanwhile was received, so that a server that has to send first does not stop the client.
  size_t SendSome(std::string_view rest);

  // The next line, without its line feed.
  std::string ReadLine();

  // The next line if it has been received whole.
  std::optional<std::string> TakeLine();

  // Makes the line that was taken last the next one again.
  void PutBack(const std::string& line);

  // Waits until something is received; false at "end", or at the end of the call. Without either it waits for ever.
  // hasMessageBegun: the rest of a message is waited for. Then the end of the call, and a server that has been silent
  // for too long, are kTimedOut; the silence of calls before counts. The first one of a call receives what has come
  // even when its time is over; the others do not, so that a server that never stops sending does not hold the call up.
  bool ReceiveUntil(std::optional<Clock::time_point> end, bool hasMessageBegun);

  // How many bytes were received that were not taken yet.
  size_t GetReceivedBytes() const { return _buffer.GetBytes(); }

  // What the bytes of a message count from.
  void StartMessage() { _messageBytes = 0; }

  // A reply was read: everything that was sent before it has been carried out.
  void ConfirmWrites() { _hasUnconfirmedWrites = false; }

  // Whether anything of the call's request, or of a write that no reply has confirmed, may have reached the server.
  bool WasSent() const { return _wasSent || _hasUnconfirmedWrites; }

  // Closes the connection and throws.
  [[noreturn]] void Fail(ProtocolException::Reason reason, const std::string& text, const std::string& hint = {});
  [[noreturn]] void FailLost();

  void Close();

 private:
  enum class Received { kBytes, kNothing, kEnd };

  void Connect(const ProtocolOptions& options);
  Received TryReceive();
  void Receive();
  void ReceiveSome();
  bool HasRoom() const { return _buffer.GetBytes() <= _maxMessageBytes; }
  short Await(short events, std::optional<Clock::time_point> end);
  short AwaitProgress(short events);
  [[noreturn]] void FailTimedOut(Milliseconds limit);

  ProtocolTimeouts _timeouts;
  const size_t _maxMessageBytes;
  std::string _address;
  int _descriptor = -1;

  std::optional<Clock::time_point> _end;  // of the call
  bool _wasSent = false;                  // some of the call's request
  bool _hasReceived = false;              // in the call, by ReceiveUntil
  bool _isWrite = false;                  // the call's request
  bool _hasUnconfirmedWrites = false;     // that were sent, in part at least
  bool _isLarge = false;                  // a request was larger than a server takes by default

  LineBuffer _buffer;
  Clock::time_point _receivedAt;  // of the last bytes
  size_t _messageBytes = 0;       // of the message that is being read, in whole lines
};

}  // namespace tavix::settings::client
