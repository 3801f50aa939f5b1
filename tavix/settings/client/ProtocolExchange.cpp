#include "tavix/settings/client/ProtocolExchange.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::client {

using Reason = ProtocolException::Reason;

namespace {

constexpr size_t kMaxShown = 80;  // bytes of a wrong line

// A line of a peer that may be anything: what is not printable ASCII is spelled as settings text spells it.
std::string ShowLine(const std::string& line) {
  constexpr char kHexDigits[] = "0123456789abcdef";
  std::string shown;
  for (const char c : line.substr(0, kMaxShown)) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      shown += "\\\\";
    } else if (c == '\r') {
      shown += "\\r";
    } else if (c == '\t') {
      shown += "\\t";
    } else if (byte < 0x20 || byte > 0x7E) {
      shown.append("\\x").append(1, kHexDigits[byte >> 4U]).append(1, kHexDigits[byte & 0xFU]);
    } else {
      shown += c;
    }
  }
  return shown;
}

}  // namespace

ProtocolExchange::ProtocolExchange(const ProtocolOptions& options, ProtocolTrace trace, size_t maxPendingNotices)
    : _socket(options), _trace(std::move(trace)), _notices(maxPendingNotices, options.maxPendingBytes) {}

void ProtocolExchange::Send(const std::string& request, bool isWrite) {
  RequirePeer();
  ShowLines(request);
  _socket.StartRequest(request, isWrite);
  std::string_view rest = request;
  while (!rest.empty()) {
    const size_t sent = _socket.SendSome(rest);
    rest.remove_prefix(sent);
    if (sent == 0) {
      if (const std::optional<std::string> reply = TakeNoticeLines()) _socket.PutBack(*reply);
    } else if (_progress) {
      _progress(request.size() - rest.size(), request.size());
    }
  }
}

// The end of the connection stands behind the notices that came before it.
void ProtocolExchange::RequirePeer() {
  const bool isOpen = _socket.ReceiveAvailable();
  if (const std::optional<std::string> line = TakeNoticeLines()) FailUnasked(*line);
  if (!isOpen) _socket.FailLost();
}

void ProtocolExchange::ShowLines(const std::string& text) const {
  if (!_trace) return;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    _trace('>', text.substr(at, end - at));
    at = end + 1;
  }
}

void ProtocolExchange::ShowReceived(const std::string& line) const {
  if (_trace) _trace('<', line);
}

std::string ProtocolExchange::ReadLine() {
  std::string line = _socket.ReadLine();
  ShowReceived(line);
  return line;
}

std::string ProtocolExchange::ReadFirstLine() {
  while (true) {
    if (!_notices.IsInNotice()) _socket.StartMessage();
    std::string line = ReadLine();
    if (!_notices.TakeLine(line)) return line;
  }
}

void ProtocolExchange::ExpectFirstLine(const char* line) {
  const std::string found = ReadFirstLine();
  if (found != line) FailUnexpected(line, found);
}

std::string ProtocolExchange::ReadPayload(std::string line) {
  std::string text;
  for (; line != protocol::kTerminator; line = ReadLine()) text.append(line).append(1, '\n');
  return text;
}

std::string ProtocolExchange::ReadData() {
  ExpectFirstLine(protocol::kData);
  return ReadPayload(ReadLine());
}

// Names come in ascending order, each once, and an empty line ends them: so only the first line can be an empty name.
// The lines behind it decide: a notice, or the whole reply to the other request, shows that the list was empty. One
// case stays ambiguous: subscriptions to the empty name and to "async change", for a client that has subscriptions
// itself. It takes the second name for a notice.
std::vector<std::string> ProtocolExchange::ReadSubscribed() {
  std::vector<std::string> names;
  std::string line = ReadLine();
  if (line.empty()) {
    line = ReadLine();
    if (_hasSubscribed && line == protocol::kAsyncChange) {
      (void)_notices.TakeLine(line);
      RequireEmptyReply(ReadFirstLine());
      return names;
    }
    names.emplace_back();
    if (line == protocol::kData) {
      line = ReadLine();
      if (line == protocol::kTerminator) return {};
      names.emplace_back(protocol::kData);
    }
  }
  for (; !line.empty(); line = ReadLine()) {
    if (line == protocol::kTerminator) FailUnexpected("", line);
    names.push_back(line);
  }
  RequireEmptyReply(ReadFirstLine());
  return names;
}

std::optional<std::string> ProtocolExchange::ReadInfo(const std::string& title) {
  std::optional<std::string> lines;
  std::string line = ReadFirstLine();
  if (line == title) {
    const std::string rule(title.size(), '-');
    if (line = ReadLine(); line != rule) FailUnexpected(rule.c_str(), line);
    lines.emplace();
    while (!(line = ReadLine()).empty()) lines->append(line).append(1, '\n');
    line = ReadFirstLine();
  }
  RequireEmptyReply(line);
  return lines;
}

void ProtocolExchange::RequireEmptyReply(const std::string& line) {
  if (line != protocol::kData) FailUnexpected(protocol::kData, line);
  const std::string end = ReadLine();
  if (end != protocol::kTerminator) FailUnexpected(protocol::kTerminator, end);
}

// Takes no more than the next one, so that as few as possible are merged.
bool ProtocolExchange::AwaitNotice(std::optional<Milliseconds> limit) {
  std::optional<Clock::time_point> end;
  if (limit) end = LineSocket::After(Clock::now(), *limit);
  while (_notices.IsEmpty()) {
    if (const std::optional<std::string> line = TakeReceivedLine()) {
      if (!_notices.TakeLine(*line)) FailUnasked(*line);
      ShowReceived(*line);
    } else if (!_socket.ReceiveUntil(end, _notices.IsInNotice() || _socket.GetReceivedBytes() > 0)) {
      return false;
    }
  }
  return true;
}

// The next line outside of replies, if it was received whole.
std::optional<std::string> ProtocolExchange::TakeReceivedLine() {
  if (!_notices.IsInNotice()) _socket.StartMessage();
  return _socket.TakeLine();
}

// Queues what was received of notices. Returns the first line that belongs to none.
std::optional<std::string> ProtocolExchange::TakeNoticeLines() {
  while (std::optional<std::string> line = TakeReceivedLine()) {
    if (!_notices.TakeLine(*line)) return line;
    ShowReceived(*line);
  }
  return std::nullopt;
}

void ProtocolExchange::FailUnexpected(const char* expected, const std::string& line) {
  FailWrong(std::string("expected \"") + expected + "\", got \"", line, "\"");
}

void ProtocolExchange::FailUnasked(const std::string& line) {
  ShowReceived(line);
  FailWrong("sent \"", line, "\", which no request asked for");
}

void ProtocolExchange::FailWrong(std::string text, const std::string& line, const char* end) {
  text.insert(0, _socket.GetAddress() + " does not speak the settings protocol: ").append(ShowLine(line)).append(end);
  _socket.Fail(Reason::kNotProtocol, text);
}

}  // namespace tavix::settings::client
