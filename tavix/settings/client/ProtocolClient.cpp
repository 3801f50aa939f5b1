#include "tavix/settings/client/ProtocolClient.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "tavix/settings/client/Commands.h"
#include "tavix/settings/client/LineSocket.h"
#include "tavix/settings/client/NoticeQueue.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/client/WireNames.h"

namespace tavix::settings::client {

using core::IniFile;
using Reason = ProtocolException::Reason;

namespace {

constexpr size_t kMaxShown = 80;  // bytes of a wrong reply

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

template <class Names>
void RequireSendableNamesOf(const Names& names) {
  try {
    RequireSendableNames(names);
  } catch (const osa::Exception& exception) {
    throw ProtocolException(Reason::kUsage, exception.what(), {}, false);
  }
}

std::string TextOf(RemoteCommand& command) {
  std::ostringstream text;
  command.SendRequest(text);
  return text.str();
}

std::string GetRequest(const ProtocolClient::Groups& groups) {
  GetSettingsCommand command;
  command._groups = &groups;
  return TextOf(command);
}

}  // namespace

// What lies between the socket and the requests: the lines of a reply, with the notices in front of it taken out.
class ProtocolClient::Exchange {
 public:
  Exchange(const Options& options, Trace trace)
      : _socket(options), _trace(std::move(trace)), _notices(kMaxPendingNotices) {}

  LineSocket& GetSocket() { return _socket; }
  NoticeQueue& GetNotices() { return _notices; }

  void SetProgress(Progress progress) { _progress = std::move(progress); }

  // Begins a call. A reply that was not read to its end, because something threw, closes the connection: the rest of it
  // must not become the reply of another request.
  void StartCall();

  // Begins a call whose request has no reply, or one that has to be read to its end.
  void Send(const std::string& request);
  void SendForReply(const std::string& request);

  // The last line of a reply was read.
  void EndReply() { _isReplyPending = false; }

  // The next line of a reply that has begun.
  std::string ReadLine();

  // The first line of a reply: notices in front of it are queued.
  std::string ReadFirstLine();
  void ExpectFirstLine(const char* line);

  // The lines up to the one that ends a payload, as a document; "line" is the first of them.
  IniFile ReadPayload(std::string line);

  // A text of a reply that was read to its end.
  IniFile Parse(const std::string& text) const;

  // Queues what has come of notices, and waits for more; false when none is whole by the end of the limit.
  bool AwaitNotice(std::optional<Milliseconds> limit);

  [[noreturn]] void FailUnexpected(const char* expected, const std::string& line);
  [[noreturn]] void FailUnreadable(const std::string& reason) const;

 private:
  void RequirePeer();
  std::optional<std::string> TakeReceivedLine();
  bool TakeNoticeLines();
  void ShowLines(const std::string& text) const;

  LineSocket _socket;
  const Trace _trace;
  Progress _progress;
  NoticeQueue _notices;
  bool _isReplyPending = false;
};

void ProtocolClient::Exchange::StartCall() {
  if (_isReplyPending) _socket.Close();
  _socket.StartCall();
}

// The end of the connection stands behind the notices that came before it. Anything else in front of it is a reply, for
// this request to judge.
void ProtocolClient::Exchange::RequirePeer() {
  if (_socket.ReceiveAvailable()) return;
  while (const std::optional<std::string> line = TakeReceivedLine()) {
    if (!_notices.TakeLine(*line)) return _socket.PutBack(*line);
    if (_trace) _trace('<', *line);
  }
  _socket.FailLost();
}

void ProtocolClient::Exchange::SendForReply(const std::string& request) {
  Send(request);
  _isReplyPending = true;
}

void ProtocolClient::Exchange::Send(const std::string& request) {
  StartCall();
  RequirePeer();
  try {
    ShowLines(request);
    _socket.Send(request, _progress);
  } catch (...) {
    _socket.Close();  // the request may have been cut
    throw;
  }
}

void ProtocolClient::Exchange::ShowLines(const std::string& text) const {
  if (!_trace) return;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    _trace('>', text.substr(at, end - at));
    at = end + 1;
  }
}

std::string ProtocolClient::Exchange::ReadLine() {
  std::string line = _socket.ReadLine();
  if (_trace) _trace('<', line);
  return line;
}

std::string ProtocolClient::Exchange::ReadFirstLine() {
  while (true) {
    if (!_notices.IsInNotice()) _socket.StartMessage();
    std::string line = ReadLine();
    if (!_notices.TakeLine(line)) return line;
  }
}

void ProtocolClient::Exchange::ExpectFirstLine(const char* line) {
  const std::string found = ReadFirstLine();
  if (found != line) FailUnexpected(line, found);
}

IniFile ProtocolClient::Exchange::ReadPayload(std::string line) {
  std::string text;
  for (; line != protocol::kTerminator; line = ReadLine()) text.append(line).append(1, '\n');
  EndReply();
  return Parse(text);
}

IniFile ProtocolClient::Exchange::Parse(const std::string& text) const {
  IniFile settings;
  try {
    settings.LoadFromString(text);
  } catch (const osa::Exception& exception) {
    FailUnreadable(exception.what());
  }
  return settings;
}

bool ProtocolClient::Exchange::AwaitNotice(std::optional<Milliseconds> limit) {
  using Clock = LineSocket::Clock;
  StartCall();
  const Clock::time_point start = Clock::now();
  while (!TakeNoticeLines()) {
    std::optional<Milliseconds> left = limit;
    if (left) left = std::max(*limit - std::chrono::floor<Milliseconds>(Clock::now() - start), Milliseconds(0));
    const bool hasBegun = _notices.IsInNotice() || _socket.HasBytes();
    const Milliseconds silence = _socket.GetTimeouts().silence;
    const bool isSilenceShorter = hasBegun && (!left || silence < *left);
    if (_socket.ReceiveWithin(isSilenceShorter ? silence : left)) continue;
    if (isSilenceShorter) _socket.FailTimedOut(silence);
    return false;
  }
  return true;
}

// The next line outside of replies, if it was received whole.
std::optional<std::string> ProtocolClient::Exchange::TakeReceivedLine() {
  if (!_notices.IsInNotice()) _socket.StartMessage();
  return _socket.TakeLine();
}

// Whether a whole notice waits.
bool ProtocolClient::Exchange::TakeNoticeLines() {
  while (_notices.IsEmpty()) {
    const std::optional<std::string> line = TakeReceivedLine();
    if (!line) return false;
    if (_trace) _trace('<', *line);
    if (!_notices.TakeLine(*line)) FailUnexpected(protocol::kAsyncChange, *line);
  }
  return true;
}

void ProtocolClient::Exchange::FailUnexpected(const char* expected, const std::string& line) {
  _socket.Fail(Reason::kNotProtocol, _socket.GetAddress() + " does not speak the settings protocol: expected \"" +
                                         expected + "\", got \"" + ShowLine(line) + "\"");
}

void ProtocolClient::Exchange::FailUnreadable(const std::string& reason) const {
  throw ProtocolException(Reason::kUnreadable, "the reply of " + _socket.GetAddress() + " can't be read: " + reason, {},
                          true);
}

ProtocolClient::ProtocolClient(const Options& options, Trace trace)
    : _exchange(std::make_unique<Exchange>(options, std::move(trace))) {}

ProtocolClient::~ProtocolClient() = default;

void ProtocolClient::RequireSendable(const Groups& namesAndPatterns) {
  RequireSendableNamesOf(namesAndPatterns);
}

void ProtocolClient::RequireSendable(const IniFile& settings) {
  RequireSendableNamesOf(settings);
}

const std::string& ProtocolClient::GetAddress() const {
  return _exchange->GetSocket().GetAddress();
}

void ProtocolClient::SetTimeouts(const Timeouts& timeouts) {
  _exchange->GetSocket().SetTimeouts(timeouts);
}

void ProtocolClient::SetProgress(Progress progress) {
  _exchange->SetProgress(std::move(progress));
}

bool ProtocolClient::IsOpen() const {
  return GetDescriptor() >= 0;
}

int ProtocolClient::GetDescriptor() const {
  return _exchange->GetSocket().GetDescriptor();
}

IniFile ProtocolClient::Get(const Groups& namesAndPatterns) {
  RequireSendable(namesAndPatterns);
  _exchange->SendForReply(GetRequest(namesAndPatterns));
  _exchange->ExpectFirstLine(protocol::kData);
  return _exchange->ReadPayload(_exchange->ReadLine());
}

IniFile ProtocolClient::GetUserSettings() {
  _exchange->SendForReply(std::string(protocol::kDump) + "\n");
  return _exchange->ReadPayload(_exchange->ReadFirstLine());
}

void ProtocolClient::Merge(const IniFile& settings, bool isVolatile) {
  RequireSendable(settings);
  MergeCommand command;
  command._settings = &settings;
  command._flags = isVolatile ? MergeCommand::kNoPersistFlag : 0;
  _exchange->Send(TextOf(command));
}

void ProtocolClient::Overwrite(const Groups& namesAndPatterns, const IniFile& settings) {
  RequireSendable(namesAndPatterns);
  RequireSendable(settings);
  OverwriteCommand command;
  command._groups = &namesAndPatterns;
  command._settings = &settings;
  _exchange->Send(TextOf(command));
}

void ProtocolClient::Restore(const Groups& namesAndPatterns) {
  RequireSendable(namesAndPatterns);
  RestoreToDefaultsCommand command;
  command._groups = &namesAndPatterns;
  _exchange->Send(TextOf(command));
}

bool ProtocolClient::TestAndMerge(const IniFile& test, const IniFile& settings) {
  RequireSendable(test);
  RequireSendable(settings);
  TestAndMergeCommand command;
  command._test = &test;
  command._settings = &settings;
  _exchange->SendForReply(TextOf(command));
  _exchange->ExpectFirstLine(protocol::kResult);
  const std::string result = _exchange->ReadLine();
  if (result != protocol::kOk && result != protocol::kFailure) _exchange->FailUnexpected(protocol::kOk, result);
  _exchange->EndReply();
  return result == protocol::kOk;
}

void ProtocolClient::Flush() {
  Get({});
}

std::vector<std::string> ProtocolClient::GetSubscribed() {
  // The list ends with an empty line, and so may a name be one. What shows the end is the reply to another request,
  // "data" and the line that no name can be.
  _exchange->SendForReply(std::string(protocol::kInfo) + " " + protocol::kSubscribed + "\n" + GetRequest({}));
  _exchange->ExpectFirstLine("Subscribed groups");
  const std::string rule = _exchange->ReadLine();
  if (rule != "-----------------") _exchange->FailUnexpected("-----------------", rule);
  std::vector<std::string> names;
  for (std::string line; (line = _exchange->ReadLine()) != protocol::kTerminator;) names.push_back(line);
  for (const char* line : {protocol::kData, ""}) {
    if (names.empty() || names.back() != line)
      _exchange->FailUnexpected(line, names.empty() ? std::string() : names.back());
    names.pop_back();
  }
  _exchange->EndReply();
  return names;
}

// An older daemon writes nothing for that request: what shows it is the reply to another one behind it.
std::map<std::string, std::string> ProtocolClient::GetServerInfo() {
  _exchange->SendForReply(std::string(protocol::kInfo) + " " + protocol::kServer + "\n" + GetRequest({}));
  std::string figures = "[]\n";  // the header of a group
  std::string line = _exchange->ReadFirstLine();
  if (line == "Server") {
    if (line = _exchange->ReadLine(); line != "------") _exchange->FailUnexpected("------", line);
    while (!(line = _exchange->ReadLine()).empty()) figures.append(line).append(1, '\n');
    line = _exchange->ReadLine();
  }
  if (line != protocol::kData) _exchange->FailUnexpected(protocol::kData, line);
  if (line = _exchange->ReadLine(); line != protocol::kTerminator)
    _exchange->FailUnexpected(protocol::kTerminator, line);
  _exchange->EndReply();
  IniFile document = _exchange->Parse(figures);
  return std::move(document[""]);
}

// What came in between is in the reply: the server carries out one request after the other.
IniFile ProtocolClient::Subscribe(const Groups& namesAndPatterns) {
  RequireSendable(namesAndPatterns);
  std::ostringstream request;
  WriteSubscribeRequest(request, namesAndPatterns);
  _exchange->SendForReply(request.str() + GetRequest(namesAndPatterns));
  _exchange->ExpectFirstLine(protocol::kData);
  IniFile settings = _exchange->ReadPayload(_exchange->ReadLine());
  _exchange->GetNotices().Forget(namesAndPatterns);
  return settings;
}

std::optional<ProtocolClient::Notice> ProtocolClient::AwaitNotice(std::optional<Milliseconds> limit) {
  NoticeQueue& notices = _exchange->GetNotices();
  if (!_exchange->AwaitNotice(limit)) return std::nullopt;
  NoticeQueue::Entry entry = notices.Pop();
  if (!entry.error.empty()) _exchange->FailUnreadable(entry.error);
  return std::move(entry.notice);
}

}  // namespace tavix::settings::client
