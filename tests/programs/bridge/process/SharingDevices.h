#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "programs/bridge/engines/EtcdJson.h"
#include "programs/bridge/formats/SharedGroup.h"
#include "tests/programs/bridge/engines/EtcdCluster.h"
#include "tests/programs/bridge/process/BridgeProcess.h"
#include "tests/support/Patience.h"
#include "tests/support/TcpProxy.h"

namespace tavix::test {

using Groups = core::IniFile::GroupMap;

// A device that shares the groups Net/* by a cluster of etcd: a daemon, a bridge, and the network between them and the
// members.
//
// Threads: the test's main thread.
class SharingDevice {
 public:
  // cluster: outlives this. members: that the bridge knows, from the first on. lines: of the map's section.
  SharingDevice(const EtcdCluster& cluster, std::size_t members, const std::string& lines = "") {
    std::string endpoints;
    for (std::size_t member = 0; member < members; ++member) {
      _links.push_back(std::make_unique<TcpProxy>(cluster.GetPort(member)));
      endpoints += (member == 0 ? "" : ",") + ("http://127.0.0.1:" + std::to_string(_links.back()->GetPort()));
    }
    bridge = std::make_unique<BridgeProcess>(TAVIX_BRIDGE_ETCD_PROGRAM, place, daemon.address,
                                             "[etcd]\nendpoints=" + endpoints + "\nprefix=fleet\n" + kQuickLimits +
                                                 "[map net]\npattern=Net/*\ndirection=both\n" + lines);
    bridge->Start();
  }

  // What the network does to the bridge's connections to all members.
  void SetLinks(TcpProxy::Mode mode) {
    for (const auto& link : _links) {
      link->SetMode(mode);
      if (mode == TcpProxy::Mode::kRefuse) link->CutAll();
    }
  }

  void CutLinks() {
    for (const auto& link : _links) link->CutAll();
  }

  TemporaryDirectory place;
  BridgedDaemon daemon{place, "daemon"};
  std::unique_ptr<BridgeProcess> bridge;

 private:
  std::vector<std::unique_ptr<TcpProxy>> _links;
};

// Two of them, and the cluster.
//
// Threads: the test's main thread.
// Errors:  waits throw std::runtime_error after kPatience.
class SharingDevices {
 public:
  explicit SharingDevices(std::size_t members, const std::string& lines = "")
      : cluster(folder, members), one(cluster, members, lines), two(cluster, members, lines) {}

  // What the cluster holds, and the number of changes that were ever made to it.
  struct Content {
    Groups groups;
    bridge::Version revision = 0;
  };
  // A member that has no leader, as on a busy machine, is asked again.
  Content ReadCluster(std::size_t member = 0) const {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (true) {
      try {
        return TryReadCluster(member);
      } catch (const std::runtime_error&) {
        if (std::chrono::steady_clock::now() > end) throw;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  // Until both devices and the cluster hold the same, and both bridges have put that down: a bridge that is asked
  // before may answer from before the change.
  Content AwaitAlike() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < end) {
      Content content = ReadCluster();
      if (AreAlike(content)) {
        one.bridge->AwaitInSync();
        two.bridge->AwaitInSync();
        if (ReadCluster().revision == content.revision && AreAlike(content)) return content;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("The devices did not become alike\n" + one.bridge->process->GetErrors() + "\n" +
                             two.bridge->process->GetErrors());
  }

  bool AreAlike(const Content& content) {
    return ReadShared(one) == content.groups && ReadShared(two) == content.groups;
  }

  static Groups ReadShared(SharingDevice& device) { return device.daemon.Read("Net/*").GetGroups(); }

  const TemporaryDirectory folder;
  EtcdCluster cluster;
  SharingDevice one;
  SharingDevice two;

 private:
  Content TryReadCluster(std::size_t member) const {
    const std::string prefix = "fleet/";
    const std::string range = bridge::etcd::MakeRange(prefix, prefix).dump();
    const nlohmann::json answer = bridge::etcd::Parse(cluster.Post("/v3/kv/range", range, member));
    Content content;
    content.revision = bridge::etcd::GetNumber(bridge::etcd::GetObject(answer, "header"), "revision");
    for (const nlohmann::json& pair : bridge::etcd::GetArray(answer, "kvs")) {
      const bridge::Item item = bridge::etcd::GetItem(pair);
      content.groups[item.key.substr(prefix.size())] = bridge::ParseSharedGroup(*item.bytes, item.bytes->size()).keys;
    }
    return content;
  }
};

}  // namespace tavix::test
