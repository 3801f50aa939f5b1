#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "programs/bridge/core/ILocalStore.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::bridge {

// The daemon as the store of the device, over one connection that is subscribed to all that is mirrored.
//
// Threads: one.
// Time:    a call gives the connection up when the daemon is silent for too long, or takes three times as long in all.
// Errors:  LocalLost; the connection is closed then. A name that no request can hold is that of a group that does not
//          exist, and a change with such a name is refused.
class DaemonStore : public ILocalStore {
 public:
  // For how long the daemon may be silent. A plain value.
  struct Patience {
    std::chrono::milliseconds connecting{2000};
    std::chrono::milliseconds asking{5000};
  };

  // address: as ProtocolOptions has it; empty: where clients find the daemon. namesAndPatterns: what notices are wanted
  // of.
  DaemonStore(std::string address, std::set<std::string> namesAndPatterns);
  // beforeCall: is called before each; what it throws leaves the call.
  DaemonStore(std::string address, std::set<std::string> namesAndPatterns, const Patience& patience,
              std::function<void()> beforeCall = nullptr);
  ~DaemonStore() override;

  // One attempt to connect and to subscribe. What is read behind it holds each change whose notice does not come.
  void Connect();
  void Close();
  bool IsConnected() const { return _client != nullptr; }

  // For poll(2) with POLLIN, behind TakeChanged; -1 without a connection.
  int GetDescriptor() const;

  // The groups that notices name; nothing: none came. Does not wait. Returns after some notices, so that neighbours who
  // change settings all the time keep nobody from other work: HasMore shows that it is to be called again before poll.
  std::set<std::string> TakeChanged();
  bool HasMore() const { return _hasMore; }

  bool CanRemove() const override { return _canAmend; }
  core::IniFile Read(const std::set<std::string>& namesAndPatterns) override;
  core::IniFile ReadUsers(const std::set<std::string>& groups) override;
  [[nodiscard]] bool Amend(const settings::Amendment& amendment) override;

 private:
  template <class Call>
  auto Run(Call call);

  void RequireSubscribed(settings::client::ProtocolClient& client) const;
  bool MergeInstead(const settings::Amendment& amendment);

  const std::string _address;
  const std::set<std::string> _subscribed;
  const Patience _patience;
  const std::function<void()> _beforeCall;
  bool _canAmend = false;
  bool _hasMore = false;
  std::unique_ptr<settings::client::ProtocolClient> _client;
};

}  // namespace tavix::bridge
