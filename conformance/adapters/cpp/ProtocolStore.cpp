// ProtocolClient: one object for calls and one for each watch, made anew when its connection is gone.
#include <algorithm>
#include <map>

#include "conformance/adapters/cpp/Store.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::conformance {

namespace {

using core::IniFile;
using settings::client::ProtocolClient;
using settings::client::ProtocolException;

constexpr Store::Milliseconds kRetry{50};

struct ProtocolWatch {
  Store::Groups names;
  IniFile known;                           // as far as events have shown
  std::unique_ptr<ProtocolClient> client;  // null while there is no connection
};

class ProtocolStore : public Store {
 public:
  ProtocolStore(const std::string& address, Milliseconds timeout, EventWriter& writer)
      : _address(address), _timeout(timeout), _writer(writer) {
    GetClient();
  }

  IniFile Get(const Groups& names) override {
    IniFile document = GetClient().Get(names);
    _isUnproven = false;
    return document;
  }

  void Merge(const IniFile& change, bool isVolatile) override {
    GetClient().Merge(change, isVolatile);
    _isUnproven = true;
  }

  bool TestAndMerge(const IniFile& test, const IniFile& change) override {
    const bool isDone = GetClient().TestAndMerge(test, change);
    _isUnproven = false;
    return isDone;
  }

  bool Amend(const settings::Amendment& amendment) override {
    const bool isDone = GetClient().Amend(amendment);
    _isUnproven = false;
    return isDone;
  }

  void Overwrite(const Groups& names, const IniFile& change) override {
    GetClient().Overwrite(names, change);
    _isUnproven = true;
  }

  void Restore(const Groups& names) override {
    GetClient().Restore(names);
    _isUnproven = true;
  }

  void Flush() override {
    try {
      GetClient().Flush();
    } catch (const ProtocolException& exception) {
      if (exception.GetReason() == ProtocolException::Reason::kLost) _isUnproven = _hasLostWrite = false;  // reported
      throw;
    }
    _isUnproven = false;
    if (std::exchange(_hasLostWrite, false))
      throw StoreError("LOST", "a connection was lost before a write was carried out");
  }

  void Watch(int number, const Groups& names, bool isInitial) override {
    ProtocolWatch watch{names, {}, MakeClient()};
    IniFile now = watch.client->Subscribe(names);
    if (isInitial) _writer.WriteDifferences(number, {}, now);
    watch.known = std::move(now);
    _watches.emplace(number, std::move(watch));
  }

  void Unwatch(int number) override { _watches.erase(number); }

  std::vector<int> GetDescriptors() override {
    std::vector<int> descriptors;
    for (const auto& [number, watch] : _watches)
      if (watch.client) descriptors.push_back(watch.client->GetDescriptor());
    return descriptors;
  }

  std::optional<Milliseconds> GetDelay() override {
    const bool isComplete =
        std::all_of(_watches.begin(), _watches.end(), [](const auto& entry) { return entry.second.client != nullptr; });
    return isComplete ? std::nullopt : std::optional<Milliseconds>(kRetry);
  }

  void Advance() override {
    for (auto& [number, watch] : _watches) {
      try {
        if (!watch.client) ComeBack(number, watch);
        while (const auto notice = watch.client->AwaitNotice(Milliseconds(0))) Apply(number, watch, *notice);
      } catch (const ProtocolException&) {
        watch.client.reset();
      }
    }
  }

 private:
  std::unique_ptr<ProtocolClient> MakeClient() const {
    settings::client::ProtocolOptions options;
    options.address = _address;
    options.timeouts = {_timeout, _timeout};
    return std::make_unique<ProtocolClient>(options);
  }

  ProtocolClient& GetClient() {
    if (_client && _client->IsOpen()) return *_client;
    if (std::exchange(_isUnproven, false)) _hasLostWrite = true;
    _client = MakeClient();
    return *_client;
  }

  void ComeBack(int number, ProtocolWatch& watch) {
    std::unique_ptr<ProtocolClient> client = MakeClient();
    Show(number, watch, client->Subscribe(watch.names));
    _writer.WriteResync(number);
    watch.client = std::move(client);
  }

  void Apply(int number, ProtocolWatch& watch, const ProtocolClient::Notice& notice) {
    IniFile now = watch.known;
    for (const std::string& group : notice.groups) {
      now.RemoveGroup(group);
      now.MergeSettings(notice.settings, group);
    }
    Show(number, watch, std::move(now));
  }

  void Show(int number, ProtocolWatch& watch, IniFile now) {
    _writer.WriteDifferences(number, watch.known, now);
    watch.known = std::move(now);
  }

  const std::string _address;
  const Milliseconds _timeout;
  EventWriter& _writer;
  std::unique_ptr<ProtocolClient> _client;
  bool _isUnproven = false;    // a write was sent that no reply has followed
  bool _hasLostWrite = false;  // since the last flush
  std::map<int, ProtocolWatch> _watches;
};

}  // namespace

std::unique_ptr<Store> MakeProtocolStore(const std::string& address, Store::Milliseconds timeout, EventWriter& writer) {
  return std::make_unique<ProtocolStore>(address, timeout, writer);
}

}  // namespace tavix::conformance
