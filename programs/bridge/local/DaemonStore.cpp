#include "programs/bridge/local/DaemonStore.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace tavix::bridge {

using core::IniFile;
using settings::Amendment;
using settings::client::ProtocolClient;
using settings::client::ProtocolException;

namespace {

constexpr size_t kMaxNotices = ProtocolClient::kMaxPendingNotices;  // that one call takes

// Whoever sends a byte now and then must not hold the bridge up for ever.
settings::client::ProtocolTimeouts MakeTimeouts(std::chrono::milliseconds silence) {
  return {silence, 3 * silence};
}

template <class Names>
bool IsSendable(const Names& names) {
  try {
    ProtocolClient::RequireSendable(names);
    return true;
  } catch (const ProtocolException&) {
    return false;
  }
}

bool IsSendable(const Amendment& amendment) {
  return IsSendable(amendment.present) && IsSendable(amendment.absent) && IsSendable(amendment.set) &&
         IsSendable(amendment.unset) && IsSendable(amendment.replace);
}

std::set<std::string> FindSendable(const std::set<std::string>& names) {
  if (IsSendable(names)) return names;
  std::set<std::string> sendable;
  for (const std::string& name : names) {
    if (IsSendable(std::set<std::string>{name})) sendable.insert(name);
  }
  return sendable;
}

std::set<std::string> NamesOf(const IniFile& settings) {
  std::set<std::string> names;
  for (const auto& [group, keys] : settings) names.insert(group);
  return names;
}

bool HoldsAll(const IniFile& settings, const IniFile& wanted) {
  for (const auto& [group, keys] : wanted) {
    for (const auto& [key, value] : keys) {
      if (!settings.HasValue(group, key) || settings.GetValue(group, key) != value) return false;
    }
  }
  return true;
}

}  // namespace

DaemonStore::DaemonStore(std::string address, std::set<std::string> namesAndPatterns)
    : DaemonStore(std::move(address), std::move(namesAndPatterns), Patience()) {}

DaemonStore::DaemonStore(std::string address, std::set<std::string> namesAndPatterns, const Patience& patience,
                         std::function<void()> beforeCall)
    : _address(std::move(address)),
      _subscribed(std::move(namesAndPatterns)),
      _patience(patience),
      _beforeCall(std::move(beforeCall)) {}

DaemonStore::~DaemonStore() = default;

// Of a failure the connection's end is all that callers can do something about.
template <class Call>
auto DaemonStore::Run(Call call) {
  if (!_client) throw LocalLost("There is no connection to the daemon");
  if (_beforeCall) _beforeCall();
  try {
    return call(*_client);
  } catch (const ProtocolException& exception) {
    Close();
    throw LocalLost(exception.what());
  }
}

void DaemonStore::Connect() {
  Close();
  settings::client::ProtocolOptions options;
  options.address = _address;
  options.addressSource = "'server' of the configuration";
  options.timeouts = MakeTimeouts(_patience.connecting);
  try {
    _client = std::make_unique<ProtocolClient>(options);
  } catch (const ProtocolException& exception) {
    throw LocalLost(exception.what());
  }
  Run([this](ProtocolClient& client) {
    const std::set<std::string> features = client.GetFeatures().value_or(std::set<std::string>());
    _canAmend = std::any_of(features.begin(), features.end(),
                            [](const std::string& line) { return line.substr(0, line.find(' ')) == "amend"; });
    client.Subscribe(_subscribed);
  });
  Run([this](ProtocolClient& client) {
    RequireSubscribed(client);
    client.SetTimeouts(MakeTimeouts(_patience.asking));
  });
}

// The daemon refuses a subscription that is beyond its limits without a word.
void DaemonStore::RequireSubscribed(ProtocolClient& client) const {
  const std::vector<std::string> listed = client.GetSubscribed();
  const std::set<std::string> all(listed.begin(), listed.end());
  if (std::includes(all.begin(), all.end(), _subscribed.begin(), _subscribed.end())) return;
  throw ProtocolException(ProtocolException::Reason::kLost, "The daemon has no room for a subscription", "", false);
}

void DaemonStore::Close() {
  _client.reset();
  _hasMore = false;
}

int DaemonStore::GetDescriptor() const {
  return _client ? _client->GetDescriptor() : -1;
}

std::set<std::string> DaemonStore::TakeChanged() {
  std::set<std::string> changed;
  _hasMore = false;
  Run([&](ProtocolClient& client) {
    for (size_t count = 0; count < kMaxNotices; ++count) {
      const auto notice = client.AwaitNotice(std::chrono::milliseconds(0));
      if (!notice) return;
      changed.insert(notice->groups.begin(), notice->groups.end());
    }
    _hasMore = true;
  });
  return changed;
}

IniFile DaemonStore::Read(const std::set<std::string>& namesAndPatterns) {
  const std::set<std::string> sendable = FindSendable(namesAndPatterns);
  if (sendable.empty()) return {};
  return Run([&sendable](ProtocolClient& client) { return client.Get(sendable); });
}

IniFile DaemonStore::ReadUsers(const std::set<std::string>& groups) {
  IniFile users;
  Run([&](ProtocolClient& client) {
    client.GetEachOfUser([&](const IniFile& part) {
      if (!part.IsEmpty() && groups.count(part.begin()->first) > 0) users.MergeSettings(part);
    });
  });
  return users;
}

bool DaemonStore::Amend(const Amendment& amendment) {
  if (!IsSendable(amendment)) return false;
  if (!_canAmend) return MergeInstead(amendment);
  return Run([&amendment](ProtocolClient& client) { return client.Amend(amendment); });
}

// Such a daemon does not show whether it refused the change.
bool DaemonStore::MergeInstead(const Amendment& amendment) {
  if (amendment.set.IsEmpty()) return true;
  const bool isDone =
      Run([&amendment](ProtocolClient& client) { return client.TestAndMerge(amendment.present, amendment.set); });
  return isDone && HoldsAll(Read(NamesOf(amendment.set)), amendment.set);
}

}  // namespace tavix::bridge
