#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/programs/server/Daemon.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/ProtocolClient.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using Client = settings::TavixSettingsClient;
using Mode = Client::OperationMode;

inline constexpr Mode kSubscribingModes[] = {Client::MultiThreaded, Client::Local,
                                             Client::MultiThreadedLocalConnection};
inline constexpr Mode kSingleThreadedModes[] = {Client::SingleThreaded, Client::SingleThreadedLocalConnection};
inline constexpr Mode kAllModes[] = {Client::MultiThreaded, Client::SingleThreaded, Client::Local,
                                     Client::SingleThreadedLocalConnection, Client::MultiThreadedLocalConnection};

// A store with some settings, and a client of it in one of the operation modes. Over TCP the store is a daemon of its
// own, and changes come from somebody else; inside the process they can come from the client only. As long as it lives,
// further clients over TCP reach the same daemon, and failures tell the mode.
//
// Threads: one. A change returns once it is made and the callbacks of the client were told of it.
class StoreInMode {
 public:
  explicit StoreInMode(Mode mode, const std::string& settings = "")
      : _trace(__FILE__, __LINE__, "in mode " + std::to_string(mode)),
        _noLocalFile("TAVIX_SETTINGS_LOCALFILE", nullptr) {
    if (mode == Client::MultiThreaded || mode == Client::SingleThreaded) StartDaemon();
    _client = std::make_unique<Client>(mode);
    if (settings.empty()) {
      AwaitNotices();  // it is connected then
    } else {
      Merge(settings);
    }
  }

  Client* GetClient() { return _client.get(); }

  void Merge(const std::string& settings) {
    AwaitClient();
    if (_other) {
      _other->Send("merge\n" + settings + ".\n");
    } else {
      _client->MergeSettings(DocumentOf(settings));
    }
    AwaitNotices();
  }

  // Replaces one group.
  void Overwrite(const std::string& group, const std::string& settings) {
    AwaitClient();
    if (_other) {
      _other->Send("overwrite\n" + group + "\n.\n" + settings + ".\n");
    } else {
      _client->OverwriteSettings(group, DocumentOf(settings));
    }
    AwaitNotices();
  }

  void Erase(const std::string& group) { Overwrite(group, ""); }

  // What the store holds of a group name or pattern.
  std::string Read(const std::string& groups) {
    core::IniFile settings;
    _client->GetSettings(groups, settings);
    return TextOf(settings);
  }

  // Until the callbacks of the client were told of all that was changed.
  void AwaitNotices() {
    if (_other) _other->AwaitHandled();
    AwaitClient();
  }

 private:
  // Until what the client sent, a subscription for example, is done. Replies and notices keep their order, too.
  void AwaitClient() {
    core::IniFile nothing;
    _client->GetSettings(std::set<std::string>(), nothing);
  }

  void StartDaemon() {
    _daemon = std::make_unique<Daemon>(_directory);
    _endpoint.emplace("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(_daemon->GetPort())).c_str());
    _other.emplace(_daemon->GetPort());
  }

  const testing::ScopedTrace _trace;
  const TemporaryDirectory _directory;
  std::unique_ptr<Daemon> _daemon;
  const ScopedEnvironment _noLocalFile;
  std::optional<ScopedEnvironment> _endpoint;
  std::optional<ProtocolClient> _other;
  std::unique_ptr<Client> _client;
};

}  // namespace tavix::test
