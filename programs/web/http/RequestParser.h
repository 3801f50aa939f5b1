#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "programs/web/http/Message.h"

namespace tavix::web {

// Reads one request of HTTP/1.1 (RFC 9112) from bytes as they arrive. It is strict: where two programs could read a
// message in two ways, such as two lengths or a line that ends with a line feed alone, it refuses the message, so that
// a proxy in front and this program always agree where a request ends.
//
// libevent's own evhttp does not serve here: it takes lines without a carriage return, chunk sizes with signs and
// blanks and several lengths, bounds the time of each read but not of a whole head, answers what it can't read by
// itself, and shows a request's head to a server only behind the body. ARCHITECTURE.md has the rest.
//
// Threads: one.
// Errors:  a message that is refused has a status and a reason; nothing behind it may be read.
class RequestParser {
 public:
  struct Limits {
    size_t headBytes = 16 * size_t{1024};
    size_t bodyBytes = 1024 * size_t{1024};
  };

  enum class State {
    kHead,      // the head is not whole
    kHeadEnd,   // the head is, and a body is to come, of which nothing is taken before AcceptBody
    kBody,      // the body is not whole
    kComplete,  // the request is whole
    kRefused    // it can't be read; see GetStatus
  };

  explicit RequestParser(const Limits& limits) : _limits(limits) {}

  // Takes what belongs to the request, and returns how many bytes that was. Takes nothing behind the head of a request
  // with a body until AcceptBody, and nothing once it is complete or refused.
  size_t Take(std::string_view bytes);

  // In kHeadEnd: how many bytes the body has, or may have if it comes in chunks.
  size_t GetAnnouncedBytes() const { return _chunk == Chunk::kNone ? _left : _limits.bodyBytes; }

  // In kHeadEnd: has the body taken. One that is larger is refused.
  void AcceptBody(size_t maxBytes);

  State GetState() const { return _state; }
  bool HasBegun() const { return !_line.empty() || _headBytes > 0; }

  // Whether the client waits for "100 Continue" before it sends the body.
  bool AwaitsContinue() const { return _awaitsContinue && _state == State::kBody; }

  // The request, once it is complete; its head from kHeadEnd on.
  Request& GetRequest() { return _request; }

  // Of a refused message.
  int GetStatus() const { return _status; }
  const std::string& GetReason() const { return _reason; }

 private:
  // Of a body in chunks, which stands next.
  enum class Chunk { kNone, kSize, kData, kDataEnd, kTrailer };

  size_t TakeLine(std::string_view bytes, size_t maxBytes);
  void HandleLine();
  void ReadRequestLine(const std::string& line);
  void ReadHeader(const std::string& line);
  void EndHead();
  void ReadFraming();
  void ReadLength(const std::string& text);
  void BeginBody(size_t length);
  size_t TakeBody(std::string_view bytes);
  void HandleChunkLine();
  void ReadChunkSize(const std::string& line);
  void ReadTrailer(const std::string& line);
  void Refuse(int status, const char* reason);

  const Limits _limits;
  State _state = State::kHead;
  Request _request;
  std::string _line;
  size_t _headBytes = 0;
  bool _hasRequestLine = false;
  bool _awaitsContinue = false;
  Chunk _chunk = Chunk::kNone;
  size_t _left = 0;  // of the body, or of its chunk
  size_t _maxBodyBytes = 0;
  size_t _framingBytes = 0;  // of the lines between the chunks and behind them
  int _status = 0;
  std::string _reason;
};

}  // namespace tavix::web
