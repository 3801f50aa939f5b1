#include "programs/web/http/Connection.h"

#include <event2/buffer.h>
#include <sys/socket.h>

#include <new>

namespace tavix::web {

namespace {

constexpr Milliseconds kHeadTime{10'000};
constexpr Milliseconds kBodyTime{60'000};
constexpr Milliseconds kIdleTime{60'000};
constexpr timeval kWriteTime{60, 0};
constexpr size_t kMaxReadBytes = 16 * size_t{1024};

// Of all answers: nothing of them may be shown elsewhere, or taken for something else than it is.
constexpr char kSecurityHeaders[] =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self'; frame-ancestors 'none'; base-uri 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Referrer-Policy: no-referrer\r\n";

bool Has(const Headers& headers, const char* name) {
  for (const auto& [header, value] : headers) {
    if (header == name) return true;
  }
  return false;
}

bool HasNoBody(int status) {
  return status == 204 || status == 304;
}

bool AsksForEnd(const Request& request) {
  const std::string* const connection = request.Find("connection");
  const bool keeps = connection && (*connection == "keep-alive" || *connection == "Keep-Alive");
  if (request.isHttp10) return !keeps;
  return connection && (*connection == "close" || *connection == "Close");
}

}  // namespace

Connection::Connection(const EventBase& base, osa::Descriptor socket, Peer peer, const RequestParser::Limits& limits,
                       ConnectionOwner& owner)
    : _peer(std::move(peer)),
      _limits(limits),
      _owner(owner),
      _timer(base, [this] { TimeOut(); }),
      _buffer(bufferevent_socket_new(base.Get(), socket.Get(), BEV_OPT_CLOSE_ON_FREE)) {
  if (!_buffer) throw std::bad_alloc();
  socket.Release();
  bufferevent_setcb(_buffer.get(), OnReadable, OnWritten, OnEvent, this);
  bufferevent_setwatermark(_buffer.get(), EV_READ, 0, kMaxReadBytes);
  bufferevent_set_timeouts(_buffer.get(), nullptr, &kWriteTime);
  bufferevent_enable(_buffer.get(), EV_READ | EV_WRITE);
  BeginNext();
}

Connection::~Connection() = default;

void Connection::End() {
  _owner.OnEnd(*this);
}

void Connection::BeginNext() {
  _parser.emplace(_limits);
  _state = State::kReading;
  _hasContinued = false;
  _timed = RequestParser::State::kComplete;
  WatchTime();
}

// The next limit begins with the next part of the request.
void Connection::WatchTime() {
  const bool isWaiting = !_isFirst && !_parser->HasBegun();
  const RequestParser::State timed = isWaiting ? RequestParser::State::kRefused : _parser->GetState();
  if (timed == _timed) return;
  _timed = timed;
  _timer.Start(isWaiting ? kIdleTime : timed == RequestParser::State::kBody ? kBodyTime : kHeadTime);
}

void Connection::TimeOut() {
  if (_state != State::kReading || !_parser->HasBegun()) return End();
  Refuse(408, "the request did not come in time");
}

void Connection::OnReadable(bufferevent*, void* self) {
  static_cast<Connection*>(self)->Read();
}

void Connection::Read() {
  if (_state == State::kAnswering) return;  // the next request waits
  evbuffer* const input = bufferevent_get_input(_buffer.get());
  if (_state == State::kClosing || _state == State::kStreaming) {
    evbuffer_drain(input, evbuffer_get_length(input));
    return;
  }
  while (_state == State::kReading && evbuffer_get_length(input) > 0) {
    const size_t size = evbuffer_get_contiguous_space(input);
    const auto* const bytes = reinterpret_cast<const char*>(evbuffer_pullup(input, static_cast<ssize_t>(size)));
    evbuffer_drain(input, _parser->Take({bytes, size}));
    if (_parser->GetState() == RequestParser::State::kRefused)
      return Refuse(_parser->GetStatus(), _parser->GetReason());
    if (_parser->GetState() == RequestParser::State::kComplete) {
      _timer.Stop();
      _state = State::kAnswering;
      _endsBehindAnswer = AsksForEnd(_parser->GetRequest());
      _isHead = _parser->GetRequest().method == "HEAD";
      return _owner.OnRequest(*this, _parser->GetRequest());
    }
    if (_parser->AwaitsContinue() && !_hasContinued) {
      _hasContinued = true;
      Write("HTTP/1.1 100 Continue\r\n\r\n");
    }
  }
  WatchTime();
}

// Where the request ends is not known: nothing behind it is read.
void Connection::Refuse(int status, const std::string& reason) {
  _state = State::kAnswering;
  _isHead = false;
  Response response = _owner.OnRefused(status, reason);
  response.endsConnection = true;
  Send(response);
}

void Connection::Write(const std::string& text) {
  bufferevent_write(_buffer.get(), text.data(), text.size());
}

std::string Connection::FormatHead(int status, const Headers& headers) const {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + ReasonOf(status) + "\r\n";
  for (const auto& [name, value] : headers) head += name + ": " + value + "\r\n";
  if (!Has(headers, "Cache-Control")) head += "Cache-Control: no-store\r\n";
  return head + kSecurityHeaders;
}

void Connection::Send(const Response& response) {
  const bool ends = response.endsConnection || _endsBehindAnswer || _hasPeerEnded;
  std::string text = FormatHead(response.status, response.headers);
  if (!HasNoBody(response.status)) text += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
  if (ends) text += "Connection: close\r\n";
  text += "\r\n";
  Write(text);
  if (!_isHead && !HasNoBody(response.status)) Write(response.body);
  _isFirst = false;
  if (!ends) {
    BeginNext();
    // What came early is read behind the caller's work.
    bufferevent_trigger(_buffer.get(), EV_READ, BEV_TRIG_IGNORE_WATERMARKS | BEV_TRIG_DEFER_CALLBACKS);
    return;
  }
  _state = State::kClosing;
  _timer.Start(kIdleTime);
}

void Connection::SendStreamHead(const Headers& headers) {
  Write(FormatHead(200, headers) + "Connection: close\r\n\r\n");
  _state = State::kStreaming;
}

void Connection::SendPart(const std::string& text) {
  Write(text);
}

bool Connection::IsDrained() const {
  return evbuffer_get_length(bufferevent_get_output(_buffer.get())) == 0;
}

void Connection::OnWritten(bufferevent*, void* self) {
  auto* const connection = static_cast<Connection*>(self);
  if (connection->_state == State::kStreaming) return connection->_owner.OnStreamDrained(*connection);
  if (connection->_state != State::kClosing || !connection->IsDrained()) return;
  // A client that still sends would lose the answer by a reset: it is read until it ends, or until the timer does.
  if (connection->_hasPeerEnded) return connection->End();
  shutdown(bufferevent_getfd(connection->_buffer.get()), SHUT_WR);
}

void Connection::OnEvent(bufferevent*, short what, void* self) {
  auto* const connection = static_cast<Connection*>(self);
  const bool isEnd = (what & BEV_EVENT_EOF) != 0;
  const bool isAnswering =
      connection->_state == State::kAnswering || (connection->_state == State::kClosing && !connection->IsDrained());
  if (!isEnd || !isAnswering) return connection->End();
  connection->_hasPeerEnded = true;  // it may have ended its own side alone
}

}  // namespace tavix::web
