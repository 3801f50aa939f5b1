#include "tavix/c/StoreClient.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "tavix/c/CallResult.h"
#include "tavix/core/SettingsText.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::c {

using core::IniFile;
using settings::client::ProtocolClient;
using settings::client::ProtocolException;
using settings::server::GroupDiscriminator;

namespace {

constexpr char kConditionReason[] = "condition:";  // the kind of a reason, as docs/protocol.md lists them

// What has come counts, and stays for the request: only an end behind it is found.
bool HasEnded(const ProtocolClient& connection) {
  if (!connection.IsOpen()) return true;
  char byte = 0;
  const ssize_t count = recv(connection.GetDescriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

// A pattern that holds what makes a name restricted matches restricted groups alone.
void RefuseRestricted(const std::string& name) {
  if (GroupDiscriminator::IsRestrictedGroup(name))
    throw CallFailure(TAVIX_REFUSED, "group \"" + core::PrintableText(name, 80) +
                                         "\" is restricted: only the device's own files set it");
}

[[noreturn]] void FailRefused(const std::string& reason) {
  throw CallFailure(TAVIX_REFUSED, "the server refused the change: " + reason);
}

void RefuseRestricted(const StoreClient::Names& names) {
  for (const std::string& name : names) RefuseRestricted(name);
}

void RefuseRestricted(const IniFile& change) {
  for (const auto& [group, keys] : change) RefuseRestricted(group);
}

}  // namespace

StoreClient::StoreClient(const settings::client::ProtocolOptions& options)
    : _options(options), _connection(std::make_unique<ProtocolClient>(options)) {}

void StoreClient::DropEnded() {
  if (!_connection || !HasEnded(*_connection)) return;
  if (std::exchange(_isWritePending, false)) _isWriteLost = true;
  _connection.reset();
}

ProtocolClient& StoreClient::Prepare() {
  DropEnded();
  if (!_connection) _connection = std::make_unique<ProtocolClient>(_options);
  return *_connection;
}

// Pending before its first byte leaves: what fails half sent is reported as lost by the next flush.
template <class Request>
void StoreClient::Write(const Request& request) {
  ProtocolClient& connection = Prepare();
  const bool wasPending = std::exchange(_isWritePending, true);
  try {
    request(connection);
  } catch (const ProtocolException& exception) {
    if (!exception.WasSent()) _isWritePending = wasPending;
    throw;
  }
}

void StoreClient::Merge(const IniFile& change, bool isVolatile) {
  RefuseRestricted(change);
  ProtocolClient::RequireSendable(change);
  Write([&](ProtocolClient& connection) { connection.Merge(change, isVolatile); });
}

void StoreClient::Overwrite(const Names& names, const IniFile& change) {
  RefuseRestricted(names);
  RefuseRestricted(change);
  ProtocolClient::RequireSendable(names);
  ProtocolClient::RequireSendable(change);
  Write([&](ProtocolClient& connection) { connection.Overwrite(names, change); });
}

void StoreClient::Restore(const Names& names) {
  RefuseRestricted(names);
  ProtocolClient::RequireSendable(names);
  Write([&](ProtocolClient& connection) { connection.Restore(names); });
}

IniFile StoreClient::Get(const Names& names) {
  ProtocolClient::RequireSendable(names);
  return Prepare().Get(names);
}

bool StoreClient::TestAndMerge(const IniFile& test, const IniFile& change) {
  RefuseRestricted(change);
  ProtocolClient::RequireSendable(test);
  ProtocolClient::RequireSendable(change);
  return Conclude(Prepare().TestAndMerge(test, change));
}

bool StoreClient::Amend(const settings::Amendment& amendment) {
  for (const IniFile* change : {&amendment.set, &amendment.unset, &amendment.replace}) RefuseRestricted(*change);
  for (const IniFile* part :
       {&amendment.present, &amendment.absent, &amendment.set, &amendment.unset, &amendment.replace})
    ProtocolClient::RequireSendable(*part);
  return Conclude(Prepare().Amend(amendment));
}

// An older server gives no reason: it only knows conditions that did not hold. When the reason is lost, it is known
// still that nothing was changed, and the caller has to read again, as after a condition.
bool StoreClient::Conclude(bool isDone) {
  if (isDone) return true;
  std::string reason;
  try {
    reason = _connection->TakeRefusal();
  } catch (const ProtocolException&) {
    return false;
  }
  if (!reason.empty() && reason.rfind(kConditionReason, 0) != 0) FailRefused(reason);
  return false;
}

// A loss of both connections is reported as one.
std::string StoreClient::AwaitWrites() {
  try {
    std::string refusal = _connection->TakeRefusal();
    _isWritePending = false;
    return refusal;
  } catch (const ProtocolException& exception) {
    if (exception.GetReason() == ProtocolException::Reason::kLost) _isWritePending = _isWriteLost = false;
    throw;
  }
}

// Without a write there is nothing to wait for. What was sent behind a loss is waited for before the loss is reported.
// After a time-out the writes are still pending on a connection that was closed: the next flush reports their loss.
void StoreClient::Flush() {
  DropEnded();
  const std::string refusal = _connection ? AwaitWrites() : std::string();
  if (std::exchange(_isWriteLost, false)) {
    std::string text = "the connection was lost before the server had carried out what was sent";
    if (!refusal.empty()) text += "; over the next one it refused the change: " + refusal;
    throw CallFailure(TAVIX_LOST, text);
  }
  if (!refusal.empty()) FailRefused(refusal);
}

}  // namespace tavix::c
