#include "programs/web/http/RequestParser.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "tavix/core/StringUtil.h"

namespace tavix::web {

namespace {

constexpr size_t kMaxChunkLine = 256;
constexpr size_t kMaxFramingBytes = 64 * size_t{1024};
constexpr size_t kMaxChunkDigits = 8;

// RFC 9110, section 5.6.2.
bool IsToken(const std::string& text) {
  const auto isTokenCharacter = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool HasControl(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;
  });
}

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string WithoutBlanks(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

}  // namespace

size_t RequestParser::Take(std::string_view bytes) {
  size_t taken = 0;
  while (taken < bytes.size() && (_state == State::kHead || _state == State::kBody)) {
    const std::string_view rest = bytes.substr(taken);
    if (_state == State::kHead) {
      taken += TakeLine(rest, _limits.headBytes);
    } else {
      taken += TakeBody(rest);
    }
  }
  return taken;
}

// Adds to the line, and handles it when it is whole.
size_t RequestParser::TakeLine(std::string_view bytes, size_t maxBytes) {
  const size_t end = bytes.find('\n');
  const size_t count = end == std::string_view::npos ? bytes.size() : end + 1;
  const bool isHead = _state == State::kHead;
  if (_line.size() + count + (isHead ? _headBytes : 0) > maxBytes) {
    Refuse(isHead ? 431 : 400, isHead ? "the header is too large" : "a line of the body's framing is too long");
    return count;
  }
  _line.append(bytes.substr(0, count));
  if (end == std::string_view::npos) return count;
  if (_line.size() < 2 || _line[_line.size() - 2] != '\r') {
    Refuse(400, "a line does not end with a carriage return and a line feed");
    return count;
  }
  if (isHead) _headBytes += _line.size();
  if (!isHead) _framingBytes += _line.size();
  _line.resize(_line.size() - 2);
  HandleLine();
  _line.clear();
  return count;
}

void RequestParser::HandleLine() {
  if (_state == State::kBody) return HandleChunkLine();
  if (!_hasRequestLine) return ReadRequestLine(_line);
  if (_line.empty()) return EndHead();
  ReadHeader(_line);
}

void RequestParser::ReadRequestLine(const std::string& line) {
  const size_t first = line.find(' ');
  const size_t second = line.find(' ', first == std::string::npos ? first : first + 1);
  if (second == std::string::npos) return Refuse(400, "the request line has no three words");
  _request.method = line.substr(0, first);
  const std::string target = line.substr(first + 1, second - first - 1);
  const std::string version = line.substr(second + 1);
  if (!IsToken(_request.method)) return Refuse(400, "the method is none");
  if (target.empty() || target[0] != '/') return Refuse(400, "the target does not begin with '/'");
  const bool isPrintable = std::all_of(target.begin(), target.end(), [](char c) { return c > 0x20 && c < 0x7F; });
  if (!isPrintable) return Refuse(400, "the target holds a byte that has to be percent-encoded");
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return Refuse(505, "the version is not HTTP/1.1");
  _request.isHttp10 = version == "HTTP/1.0";
  const size_t question = target.find('?');
  _request.path = target.substr(0, question);
  if (question != std::string::npos) _request.query = target.substr(question + 1);
  _hasRequestLine = true;
}

void RequestParser::ReadHeader(const std::string& line) {
  const size_t colon = line.find(':');
  if (colon == std::string::npos) return Refuse(400, "a header has no colon");
  const std::string name = line.substr(0, colon);
  const std::string value = WithoutBlanks(line.substr(colon + 1));
  if (!IsToken(name)) return Refuse(400, "the name of a header is none");
  if (HasControl(value)) return Refuse(400, "a header holds a control character");
  _request.headers.emplace_back(Lower(name), value);
}

void RequestParser::EndHead() {
  if (_request.Count("host") != 1) return Refuse(400, "expected one Host header");
  const std::string* const expect = _request.Find("expect");
  if (expect && Lower(*expect) != "100-continue") return Refuse(400, "Expect is not 100-continue");
  _awaitsContinue = expect != nullptr;
  ReadFraming();
}

// RFC 9112, section 6.3, without its exceptions.
void RequestParser::ReadFraming() {
  const size_t codings = _request.Count("transfer-encoding");
  const size_t lengths = _request.Count("content-length");
  if (lengths > 1) return Refuse(400, "there are two Content-Length headers");
  if (codings > 0 && lengths > 0) return Refuse(400, "Content-Length stands beside Transfer-Encoding");
  if (codings > 0) {
    if (codings > 1 || Lower(*_request.Find("transfer-encoding")) != "chunked")
      return Refuse(400, "a transfer coding is not 'chunked'");
    if (_request.isHttp10) return Refuse(400, "HTTP/1.0 has no Transfer-Encoding");
    _chunk = Chunk::kSize;
    _state = State::kHeadEnd;
    return;
  }
  if (lengths == 1) return ReadLength(*_request.Find("content-length"));
  const bool takesBody = _request.method == "POST" || _request.method == "PUT" || _request.method == "PATCH";
  if (takesBody) return Refuse(411, "there is no Content-Length");
  _state = State::kComplete;
}

void RequestParser::ReadLength(const std::string& text) {
  const bool isNumber =
      !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (!isNumber) return Refuse(400, "Content-Length is no number");
  size_t length = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (error != std::errc() || end != text.data() + text.size()) return Refuse(413, "the body is too large");
  BeginBody(length);
}

void RequestParser::BeginBody(size_t length) {
  if (length > _limits.bodyBytes) return Refuse(413, "the body is too large");
  _left = length;
  _state = length == 0 ? State::kComplete : State::kHeadEnd;
}

void RequestParser::AcceptBody(size_t maxBytes) {
  _maxBodyBytes = std::min(maxBytes, _limits.bodyBytes);
  if (_left > _maxBodyBytes) return Refuse(413, "the body is too large");
  _request.body.reserve(_left);
  _state = State::kBody;
}

size_t RequestParser::TakeBody(std::string_view bytes) {
  const bool isData = _chunk == Chunk::kNone || _chunk == Chunk::kData;
  if (!isData) return TakeLine(bytes, kMaxChunkLine);
  const size_t count = std::min(_left, bytes.size());
  _request.body.append(bytes.substr(0, count));
  _left -= count;
  if (_left == 0 && _chunk == Chunk::kNone) _state = State::kComplete;
  if (_left == 0 && _chunk == Chunk::kData) _chunk = Chunk::kDataEnd;
  return count;
}

void RequestParser::HandleChunkLine() {
  if (_framingBytes > kMaxFramingBytes) return Refuse(400, "the chunks are too small, or the trailer is too large");
  switch (_chunk) {
    case Chunk::kSize:
      return ReadChunkSize(_line);
    case Chunk::kDataEnd:
      if (!_line.empty()) return Refuse(400, "a chunk is longer than its size");
      _chunk = Chunk::kSize;
      return;
    default:
      if (!_line.empty()) return ReadTrailer(_line);
      _state = State::kComplete;
  }
}

// Nothing here asks for one, but another program must not read it in another way.
void RequestParser::ReadTrailer(const std::string& line) {
  const size_t colon = line.find(':');
  if (colon == std::string::npos || !IsToken(line.substr(0, colon))) return Refuse(400, "a trailer has no name");
  if (HasControl(line)) return Refuse(400, "a trailer holds a control character");
}

// What stands behind the size is an extension, of which nobody knows any.
void RequestParser::ReadChunkSize(const std::string& line) {
  if (HasControl(line)) return Refuse(400, "an extension of a chunk holds a control character");
  const std::string digits = line.substr(0, line.find(';'));
  size_t size = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), size, 16);
  const bool isNumber = error == std::errc() && end == digits.data() + digits.size() && !digits.empty();
  if (!isNumber || digits.size() > kMaxChunkDigits) return Refuse(400, "the size of a chunk is no number");
  if (size > _maxBodyBytes - std::min(_maxBodyBytes, _request.body.size())) return Refuse(413, "the body is too large");
  _left = size;
  _chunk = size == 0 ? Chunk::kTrailer : Chunk::kData;
}

void RequestParser::Refuse(int status, const char* reason) {
  _state = State::kRefused;
  _status = status;
  _reason = reason;
}

}  // namespace tavix::web
