#include "programs/web/http/Connection.h"

#include <event2/buffer.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "programs/common/client/Join.h"
#include "tavix/core/StringUtil.h"

namespace tavix::web {

namespace {

constexpr Milliseconds kHeadTime{10'000};
constexpr Milliseconds kBodyTime{60'000};
constexpr Milliseconds kIdleTime{60'000};
constexpr timeval kWriteTime{60, 0};
constexpr size_t kMinOwned = 16 * size_t{1024};
constexpr size_t kMaxReadBytes = 16 * size_t{1024};
constexpr size_t kMaxUnsentBytes = 64 * size_t{1024};  // behind which no further request is read

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

// A list of options (RFC 9110, section 7.6.1); what keeps connections of HTTP/1.0 is none of this program's.
bool AsksForEnd(const Request& request) {
  if (request.isHttp10) return true;
  for (const auto& [name, value] : request.headers) {
    if (name != "connection") continue;
    std::vector<std::string> options;
    core::StringUtil::Split(options, value, ", \t", 0);
    for (const std::string& option : options) {
      if (core::StringUtil::EqualsIgnoringCase(option, "close")) return true;
    }
  }
  return false;
}

}  // namespace

Connection::Connection(const EventBase& base, osa::Descriptor socket, const Encryption* encryption, Peer peer,
                       const RequestParser::Limits& limits, ConnectionOwner& owner)
    : _base(base), _peer(std::move(peer)), _limits(limits), _owner(owner), _timer(base, [this] { TimeOut(); }) {
  SetBuffer(encryption ? encryption->OpenBuffer(base, std::move(socket)) : OpenPlainBuffer(base, std::move(socket)));
  BeginNext();
}

Connection::~Connection() {
  Encryption::EndOutput(_buffer.get());
}

void Connection::SetBuffer(Buffer buffer) {
  _buffer = std::move(buffer);
  bufferevent_setcb(_buffer.get(), OnReadable, OnWritten, OnEvent, this);
  bufferevent_set_timeouts(_buffer.get(), nullptr, &kWriteTime);
  bufferevent_enable(_buffer.get(), EV_READ | EV_WRITE);
}

void Connection::End() {
  _owner.OnEnd(*this);
}

void Connection::BeginNext() {
  _parser.emplace(_limits);
  _state = State::kReading;
  _limit = Limit::kNone;
  WatchTime();
}

// The next limit begins with the next part of the request.
void Connection::WatchTime() {
  const bool isBody = _parser->GetState() == RequestParser::State::kBody;
  const Limit limit = !_isFirst && !_parser->HasBegun() ? Limit::kIdle : isBody ? Limit::kBody : Limit::kHead;
  if (limit == _limit) return;
  _limit = limit;
  _timer.Start(limit == Limit::kIdle ? kIdleTime : isBody ? kBodyTime : kHeadTime);
}

// An answer that still leaves has the bufferevent's own limit, which is one of no progress.
void Connection::TimeOut() {
  if (_state == State::kReading && _parser->HasBegun()) return Refuse(408, "the request did not come in time");
  if (!IsDrained()) return _timer.Start(kIdleTime);
  End();
}

void Connection::OnReadable(bufferevent*, void* self) {
  static_cast<Connection*>(self)->Read();
}

void Connection::Read() {
  evbuffer* const input = bufferevent_get_input(_buffer.get());
  if (_state == State::kClosing || _state == State::kStreaming) evbuffer_drain(input, evbuffer_get_length(input));
  while (CanTake() && evbuffer_get_length(input) > 0) {
    const size_t size = evbuffer_get_contiguous_space(input);
    const auto* const bytes = reinterpret_cast<const char*>(evbuffer_pullup(input, static_cast<ssize_t>(size)));
    evbuffer_drain(input, _parser->Take({bytes, size}));
    HandleTaken();
  }
  Suspend(evbuffer_get_length(input) >= kMaxReadBytes);
  if (_state != State::kReading) return;
  WatchTime();
  if (_hasPeerEnded && evbuffer_get_length(input) == 0) EndBehindAnswers();
}

// Whoever asks and does not take the answers must not fill the memory with them.
bool Connection::CanTake() const {
  return _state == State::kReading && evbuffer_get_length(bufferevent_get_output(_buffer.get())) <= kMaxUnsentBytes;
}

// What comes too early waits in the socket. By a watermark libevent would call OnReadable in a busy loop meanwhile, and
// forget what TLS has read and it has not.
void Connection::Suspend(bool isSuspended) {
  if (isSuspended == _isSuspended) return;
  _isSuspended = isSuspended;
  if (isSuspended) {
    bufferevent_disable(_buffer.get(), EV_READ);
  } else if (!_hasPeerEnded) {
    bufferevent_enable(_buffer.get(), EV_READ);
  }
}

// Behind each part of a request that was taken.
void Connection::HandleTaken() {
  using ParserState = RequestParser::State;
  Request& request = _parser->GetRequest();
  switch (_parser->GetState()) {
    case ParserState::kRefused:
      return Refuse(_parser->GetStatus(), _parser->GetReason());
    case ParserState::kHeadEnd:
      _isHead = request.method == "HEAD";
      return _owner.OnHead(*this, request, _parser->GetAnnouncedBytes());
    case ParserState::kComplete:
      _timer.Stop();
      _state = State::kAnswering;
      _endsBehindAnswer = AsksForEnd(request);
      _isHead = request.method == "HEAD";
      return _owner.OnRequest(*this, request);
    default:
      return;
  }
}

void Connection::AcceptBody(size_t maxBytes, MemoryBudget::Share share) {
  _parser->GetRequest().bodyShare = std::move(share);
  _parser->AcceptBody(maxBytes);
  if (_parser->GetState() == RequestParser::State::kRefused) return Refuse(_parser->GetStatus(), _parser->GetReason());
  if (_parser->AwaitsContinue()) Write("HTTP/1.1 100 Continue\r\n\r\n");
}

// Where the request ends is not known: nothing behind it is read.
void Connection::Refuse(int status, const std::string& reason) {
  _state = State::kAnswering;
  _isHead = false;
  Response response = _owner.OnRefused(status, reason);
  response.endsConnection = true;
  Send(std::move(response));
}

void Connection::Write(const std::string& text) {
  bufferevent_write(_buffer.get(), text.data(), text.size());
}

// What is large is not copied; its share of the memory goes when the last of it has left, or with the connection.
void Connection::WriteBody(Response response) {
  evbuffer* const output = bufferevent_get_output(_buffer.get());
  const std::string_view lasting = response.lastingBody;
  if (!lasting.empty()) {
    if (evbuffer_add_reference(output, lasting.data(), lasting.size(), nullptr, nullptr) != 0) throw std::bad_alloc();
    return;
  }
  if (response.body.size() < kMinOwned) return Write(response.body);
  auto owned = std::make_unique<Response>(std::move(response));
  const auto release = [](const void*, size_t, void* owner) {
    const std::unique_ptr<Response> sent(static_cast<Response*>(owner));
  };
  const std::string& body = owned->body;
  if (evbuffer_add_reference(output, body.data(), body.size(), release, owned.get()) != 0) throw std::bad_alloc();
  static_cast<void>(owned.release());
}

std::string Connection::FormatHead(int status, const Headers& headers) const {
  std::string head = programs::Join({"HTTP/1.1 ", std::to_string(status), " ", ReasonOf(status), "\r\n"});
  for (const auto& [name, value] : headers) head += programs::Join({name, ": ", value, "\r\n"});
  if (!Has(headers, "Cache-Control")) head += "Cache-Control: no-store\r\n";
  return head + kSecurityHeaders;
}

void Connection::Send(Response response) {
  const bool isWhole = _parser->GetState() == RequestParser::State::kComplete;
  const bool isLast = _hasPeerEnded && evbuffer_get_length(bufferevent_get_input(_buffer.get())) == 0;
  const bool ends = response.endsConnection || _endsBehindAnswer || isLast || !isWhole;
  std::string text = FormatHead(response.status, response.headers);
  const size_t length = response.lastingBody.empty() ? response.body.size() : response.lastingBody.size();
  if (!HasNoBody(response.status)) text += programs::Join({"Content-Length: ", std::to_string(length), "\r\n"});
  if (ends) text += "Connection: close\r\n";
  text += "\r\n";
  Write(text);
  if (!_isHead && !HasNoBody(response.status) && length > 0) WriteBody(std::move(response));
  _isFirst = false;
  if (ends) {
    _state = State::kClosing;
    _timer.Start(kIdleTime);
  } else {
    BeginNext();
  }
  ReadSoon();
}

// What came early is read behind the caller's work.
void Connection::ReadSoon() {
  bufferevent_trigger(_buffer.get(), EV_READ, BEV_TRIG_IGNORE_WATERMARKS | BEV_TRIG_DEFER_CALLBACKS);
}

void Connection::SendStreamHead(const Headers& headers) {
  Write(FormatHead(200, headers) + "Connection: close\r\n\r\n");
  _state = State::kStreaming;
  ReadSoon();
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
  if (connection->_state == State::kReading) return connection->Read();  // what waited for room
  if (connection->_state != State::kClosing || !connection->IsDrained()) return;
  // A client that still sends would lose the answer by a reset: it is read until it ends, or until the timer does.
  if (connection->_hasPeerEnded) return connection->End();
  Encryption::EndOutput(connection->_buffer.get());
  shutdown(bufferevent_getfd(connection->_buffer.get()), SHUT_WR);
}

// No whole request comes any more: the answers that are on their way are the last.
void Connection::EndBehindAnswers() {
  if (IsDrained()) return End();
  _state = State::kClosing;
  _timer.Start(kIdleTime);
}

// Of a client that takes the port for one of plain HTTP: it is told so in its own language.
void Connection::RefusePlainRequest() {
  osa::Descriptor socket(fcntl(bufferevent_getfd(_buffer.get()), F_DUPFD_CLOEXEC, 0));
  if (!socket) return End();
  SetBuffer(OpenPlainBuffer(_base, std::move(socket)));
  Refuse(400, "this port takes HTTPS alone");
}

// A peer that has ended may have ended its own side alone, and await answers. TLS stops writing then.
void Connection::OnEvent(bufferevent* buffer, short what, void* self) {
  if (what == BEV_EVENT_CONNECTED) return;
  auto* const connection = static_cast<Connection*>(self);
  const bool isOver =
      connection->_state == State::kStreaming || (connection->_state == State::kClosing && connection->IsDrained());
  if (Encryption::HasMetPlainRequest(buffer)) return connection->RefusePlainRequest();
  if ((what & BEV_EVENT_EOF) == 0 || isOver) return connection->End();
  connection->_hasPeerEnded = true;
  if (!connection->IsDrained()) bufferevent_enable(buffer, EV_WRITE);
  connection->Read();
}

}  // namespace tavix::web
