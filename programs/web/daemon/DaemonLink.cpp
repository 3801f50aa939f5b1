#include "programs/web/daemon/DaemonLink.h"

#include <poll.h>

#include <algorithm>

namespace tavix::web {

using settings::client::ProtocolClient;
using settings::client::ProtocolException;
using Reason = ProtocolException::Reason;

namespace {

constexpr std::chrono::milliseconds kLeastTime{1};

std::string FirstWord(const std::string& line) {
  return line.substr(0, line.find(' '));
}

int StatusOf(Reason reason) {
  switch (reason) {
    case Reason::kUsage:
      return 422;
    case Reason::kUnreachable:
    case Reason::kNoResources:
      return 503;
    case Reason::kTimedOut:
      return 504;
    case Reason::kTooOld:
      return 501;
    default:
      return 502;
  }
}

}  // namespace

// No notices come on this connection: what can be read between two requests is its end.
bool DaemonLink::IsStale() const {
  if (!_client->IsOpen()) return true;
  pollfd descriptor{_client->GetDescriptor(), POLLIN, 0};
  return poll(&descriptor, 1, 0) != 0;
}

void DaemonLink::Begin(Clock::time_point end) {
  _end = end;
  _hasBegunWrite = false;
  _hasWritten = false;
  if (_client && IsStale()) _client.reset();
}

ProtocolClient& DaemonLink::Get() {
  _hasWritten = _hasBegunWrite;
  return Connect();
}

ProtocolClient& DaemonLink::GetForWrite() {
  _hasWritten = _hasBegunWrite;
  _hasBegunWrite = true;
  return Connect();
}

bool DaemonLink::MayHaveWritten(const ProtocolException& exception) const {
  return _hasWritten || (_hasBegunWrite && exception.WasSent());
}

ProtocolClient& DaemonLink::Connect() {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(_end - Clock::now());
  const settings::client::ProtocolTimeouts timeouts{std::max(left, kLeastTime), std::max(left, kLeastTime)};
  if (!_client) {
    _features.reset();
    settings::client::ProtocolOptions options;
    options.address = _address;
    options.addressSource = "--server";
    options.timeouts = timeouts;
    _client = std::make_unique<ProtocolClient>(options);
  }
  _client->SetTimeouts(timeouts);
  return *_client;
}

const std::set<std::string>& DaemonLink::GetFeatures() {
  ProtocolClient& client = Get();
  if (_features) return *_features;
  std::set<std::string> words;
  for (const std::string& line : client.GetFeatures().value_or(std::set<std::string>())) words.insert(FirstWord(line));
  return _features.emplace(std::move(words));
}

void DaemonLink::RequireFeature(const std::string& feature) {
  if (GetFeatures().count(feature) == 0)
    Refuse(501, {"the daemon lacks the feature '", feature, "'"}, {{"feature", feature}});
}

Refusal ToRefusal(const ProtocolException& exception, bool isWrite, const DaemonLink& link) {
  const int status = StatusOf(exception.GetReason());
  Headers headers;
  if (status == 503) headers.emplace_back("Retry-After", "1");
  Refusal::Members members;
  if (isWrite && status != 422)
    members["outcome"] = Quoted(link.MayHaveWritten(exception) ? "unknown" : "nothing written");
  return {status, exception.what(), members, headers};
}

}  // namespace tavix::web
