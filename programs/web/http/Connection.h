#pragma once

#include <event2/bufferevent.h>

#include <optional>
#include <string>

#include "programs/web/http/Buffer.h"
#include "programs/web/http/Encryption.h"
#include "programs/web/http/EventBase.h"
#include "programs/web/http/Message.h"
#include "programs/web/http/Peer.h"
#include "programs/web/http/RequestParser.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::web {

class Connection;

// What a connection has its requests answered by. Outlives all connections.
class ConnectionOwner {
 public:
  ConnectionOwner() = default;
  virtual ~ConnectionOwner() = default;

  ConnectionOwner(const ConnectionOwner&) = delete;
  ConnectionOwner& operator=(const ConnectionOwner&) = delete;

  // The head of a request has come, and nothing of its body was taken. It has to be answered at once: by AcceptBody, or
  // by Send, behind which the connection ends. announcedBytes: what the body has, or may have if it comes in chunks.
  virtual void OnHead(Connection& connection, const Request& head, size_t announcedBytes) = 0;

  // A request is whole. It has to be answered by Send or SendStreamHead, now or later.
  virtual void OnRequest(Connection& connection, Request& request) = 0;

  // A request can't be read: what the answer is.
  virtual Response OnRefused(int status, const std::string& reason) = 0;

  // All that was given to a stream has left.
  virtual void OnStreamDrained(Connection& connection) = 0;

  // The connection has ended. It is destroyed behind this call.
  virtual void OnEnd(Connection& connection) = 0;
};

// One connection of a browser or another client: one request after the other, each answered before the next is read.
// What the client sends too early waits in its socket.
//
// Threads: the loop's.
// Times:   the head of a request has to come within 10 s of its first byte, or of the connection's begin, with its
//          handshake of TLS; its body
//          within 60 s; a connection without a request ends after 60 s, and so does one that takes nothing of its
//          answer for 60 s. An answer of which something is taken may take any time.
// Ends:    a client that ends its own side gets the answers to all requests that came whole.
class Connection {
 public:
  // encryption: null: the connection is not encrypted; of use during the call alone. owner, base: outlive this.
  Connection(const EventBase& base, osa::Descriptor socket, const Encryption* encryption, Peer peer,
             const RequestParser::Limits& limits, ConnectionOwner& owner);
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const Peer& GetPeer() const { return _peer; }

  // Has the body of the request taken, if it has no more bytes than that. share: is kept with the request.
  void AcceptBody(size_t maxBytes, MemoryBudget::Share share);

  // Answers the request. The answer to HEAD is sent without its body.
  void Send(Response response);

  // Answers by a stream, which SendPart continues until the connection ends.
  void SendStreamHead(const Headers& headers);
  void SendPart(const std::string& text);

  // Whether all that was given to it has left.
  bool IsDrained() const;

  // Ends it without an answer. Destroys this.
  void End();

 private:
  enum class State {
    kReading,    // a request is to come
    kAnswering,  // it came whole, and awaits its answer
    kStreaming,  // its answer goes on
    kClosing     // the last answer leaves
  };

  // What the timer bounds of a request that is to come.
  enum class Limit {
    kNone,  // it runs not yet
    kIdle,  // the time until the next request begins
    kHead,  // the time of its head
    kBody   // the time of its body
  };

  static void OnReadable(bufferevent* buffer, void* self);
  static void OnWritten(bufferevent* buffer, void* self);
  static void OnEvent(bufferevent* buffer, short what, void* self);

  void SetBuffer(Buffer buffer);
  void Read();
  void ReadSoon();
  bool CanTake() const;
  void Suspend(bool isSuspended);
  void HandleTaken();
  void Refuse(int status, const std::string& reason);
  void WatchTime();
  void TimeOut();
  void Write(const std::string& text);
  void WriteBody(Response response);
  std::string FormatHead(int status, const Headers& headers) const;
  void BeginNext();
  void EndBehindAnswers();
  void RefusePlainRequest();

  const EventBase& _base;
  const Peer _peer;
  const RequestParser::Limits _limits;
  ConnectionOwner& _owner;
  State _state = State::kReading;
  std::optional<RequestParser> _parser;
  Limit _limit = Limit::kNone;
  bool _isFirst = true;
  bool _endsBehindAnswer = false;
  bool _hasPeerEnded = false;
  bool _isHead = false;
  bool _isSuspended = false;
  LoopEvent _timer;
  Buffer _buffer;
};

}  // namespace tavix::web
